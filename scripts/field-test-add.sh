#!/usr/bin/env bash
# Turns a capture into a regression test: tests/field/captures/NAME.pcap with
# the xbc-host arguments it is replayed with and the notifications that
# replay gives, which the test then expects every time.
#
#   scripts/field-test-add.sh CAPTURE NAME -- XBC_HOST_ARGS...
#
# CAPTURE: from xbc-tap, xbc-host --capture, or Wireshark on TCP (pcap or
# pcapng). XBC_HOST_ARGS: the runtime's watches (and writes, --props) as
# xbc-host options, without --tcp or --serial (the replay always runs over
# TCP); without --duration the capture's own length is used. BUILD_DIR (default
# build) names the build with the programs. Read the notifications it prints
# before committing: they become the expected ones.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
usage() {
    echo "field-test-add: $1" >&2
    echo "usage: scripts/field-test-add.sh CAPTURE NAME -- XBC_HOST_ARGS..." >&2
    exit 2
}
[ $# -ge 3 ] && [ "$3" = "--" ] || usage "expected CAPTURE NAME -- XBC_HOST_ARGS..."
capture="$1"
name="$2"
shift 3
[ -f "$capture" ] || usage "no such capture file '$capture'"
[[ "$name" =~ ^[A-Za-z0-9_-]+$ ]] || usage "NAME may hold letters, digits, '_' and '-' only"
for arg in "$@"; do
    case "$arg" in
        --tcp | --tcp=* | --serial | --serial=* | --line | --line=*)
            usage "leave out $arg: the replay brings its own link" ;;
    esac
done
[ -x "$build/sim/xbc-plc-sim" ] && [ -x "$build/host/xbc-host" ] ||
    usage "no programs in $build (build first, or set BUILD_DIR)"

dir="$root/tests/field/captures"
extension=pcap
[ "$(head -c 4 "$capture" | od -An -tx1 | tr -d ' ')" = 0a0d0d0a ] && extension=pcapng
for existing in "$dir/$name.pcap" "$dir/$name.pcapng"; do
    [ ! -e "$existing" ] || usage "$existing exists already"
done

args=("$@")
if ! printf '%s\n' "${args[@]}" | grep -q '^--duration'; then
    span="$(tshark -r "$capture" -T fields -e frame.time_relative 2> /dev/null | tail -1)"
    args+=(--duration "$(awk -v s="${span:-0}" 'BEGIN { d = int(s) + 2; print d < 2 ? 2 : d }')")
fi
cp "$capture" "$dir/$name.$extension"
echo "${args[*]}" > "$dir/$name.args"
echo "Replaying $name.$extension through xbc-host ${args[*]}:"
if ! bash "$root/tests/field/replay_test.sh" "$build" "$dir" "$name" --record; then
    rm -f "$dir/$name.$extension" "$dir/$name.args" "$dir/$name.expected"
    echo "field-test-add: the replay failed; nothing added" >&2
    exit 1
fi
echo
echo "Added tests/field/captures/$name.{$extension,args,expected}. Check the notifications above,"
echo "then: cmake --build $build && ctest --test-dir $build -R field_replay_$name"
