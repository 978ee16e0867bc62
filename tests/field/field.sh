# Helpers of the field-capture scripts (sourced): the programs of a build,
# xbc-host's notifications as "register,address,value" lines, and the tap.
#   field_programs BUILD_DIR     sets SIM, HOST, TAP
#   run_host NOTES ARGS...       runs xbc-host ARGS..., its notifications in
#                                NOTES, everything it printed in NOTES.out
#   start_controlled_sim FIFO LOG ARGS...
#                                start_sim with --control reading the named
#                                pipe FIFO, open on descriptor 3: "echo
#                                'drop link' >&3" sends a command
#   start_tap LOG ARGS...        xbc-tap ARGS... in the background; sets
#                                TAP_PID, and TAP_PORT when it listens on TCP
#   stop_tap                     ends it (its totals are in LOG)
# shellcheck source=../../scripts/sim-process.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/sim-process.sh"

field_programs() {
    SIM="$1/sim/xbc-plc-sim"
    HOST="$1/host/xbc-host"
    TAP="$1/tools/tap/xbc-tap"
}

# xbc-host's change log without its time column; until a host has --log, the
# change lines it prints ("12:00:00.000  station 1  D_W 100 = 5 (0x0005)").
run_host() {
    local notes="$1"
    shift
    local rc=0
    if "$HOST" --help 2> /dev/null | grep -q -- '--log'; then
        "$HOST" "$@" --log "$notes.csv" > "$notes.out" 2>&1 || rc=$?
        tail -n +2 "$notes.csv" | cut -d, -f2- > "$notes"
    else
        "$HOST" "$@" > "$notes.out" 2>&1 || rc=$?
        sed -nE 's/^[0-9:.]+ +station [0-9]+ +([^ ]+) ([^ ]+) = ([^ ]+).*/\1,\2,\3/p' \
            "$notes.out" > "$notes"
    fi
    # A failed write may end the run non-zero; a usage error means the test is wrong.
    if [ "$rc" -eq 2 ]; then
        echo "xbc-host refused its arguments ($*):" >&2
        cat "$notes.out" >&2
        return 1
    fi
}

start_controlled_sim() {
    local fifo="$1"
    shift
    rm -f "$fifo"
    mkfifo "$fifo"
    exec 3<> "$fifo"
    # A background job's input is /dev/null unless the job itself redirects it.
    start_sim "$1" sh -c 'exec "$@" --control <&3' sh "${@:2}"
}

start_tap() {
    local log="$1"
    shift
    : > "$log"
    "$TAP" "$@" > "$log" 2>&1 &
    TAP_PID=$!
    TAP_PORT=""
    for _ in $(seq 100); do
        TAP_PORT="$(sed -n 's/^tcp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$log")"
        [ -n "$TAP_PORT" ] && return 0
        grep -q '^serial ' "$log" && return 0
        kill -0 "$TAP_PID" 2> /dev/null || break
        sleep 0.1
    done
    echo "xbc-tap did not start:" >&2
    cat "$log" >&2
    return 1
}

stop_tap() {
    [ -n "${TAP_PID:-}" ] || return 0
    kill "$TAP_PID" 2> /dev/null || true
    wait "$TAP_PID" 2> /dev/null || true
    TAP_PID=""
}

# Fails with both lists side by side when they differ.
same_notes() {
    local what="$1" expected="$2" got="$3"
    if ! diff -u "$expected" "$got" > "$got.diff"; then
        echo "FAIL: $what: the notifications differ ($(wc -l < "$expected") expected, $(wc -l < "$got") got):" >&2
        head -40 "$got.diff" >&2
        return 1
    fi
    if [ ! -s "$expected" ]; then
        echo "FAIL: $what: no notifications at all" >&2
        return 1
    fi
}
