#!/usr/bin/env bash
# One field capture replayed through xbc-host: xbc-plc-sim --replay answers as
# the recorded PLC did, xbc-host runs with the arguments recorded with the
# capture, and its notifications must be the expected ones.
#   replay_test.sh BUILD_DIR CAPTURE_DIR NAME [--record]
# NAME.pcap (or NAME.pcapng) is the capture, NAME.args xbc-host's arguments (no link option: the
# replay is always over TCP), NAME.expected the notifications in order;
# --record writes NAME.expected instead of comparing.
set -euo pipefail
source "$(dirname "$0")/field.sh"
field_programs "$1"
dir="$2"
name="$3"
record="${4:-}"
work="$(mktemp -d)"
trap 'stop_sim; rm -rf "$work"' EXIT

read -r -a args < "$dir/$name.args"
capture="$dir/$name.pcap"
[ -e "$capture" ] || capture="$dir/$name.pcapng"
start_sim "$work/sim.log" "$SIM" --port 0 --replay "$capture"
run_host "$work/notes" --tcp "127.0.0.1:$SIM_PORT" "${args[@]}"
stop_sim
if [ "$record" = "--record" ]; then
    cp "$work/notes" "$dir/$name.expected"
    cat "$work/notes"
    grep '^replay' "$work/sim.log"
    exit 0
fi
if ! same_notes "replay of $name.pcap" "$dir/$name.expected" "$work/notes"; then
    grep '^replay' "$work/sim.log" >&2
    exit 1
fi
echo "$name: $(wc -l < "$work/notes") notifications as expected"
