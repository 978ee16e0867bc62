# xbc-plc-sim as a process on a free loopback port, for the scripts that need a
# PLC (the demo, the program tests, the install test). Sourced, not run:
#   start_sim LOG COMMAND...  runs COMMAND (the simulator with its options, an
#                             emulator before it if need be) with its output in
#                             LOG, waits until it names its port; sets SIM_PID
#                             and SIM_PORT, or prints LOG and fails
#   stop_sim                  ends it; nothing to do once it has ended

SIM_START_TRIES=200 # of 0.1 s: a simulator under an emulator starts slowly

start_sim() {
    local log="$1"
    shift
    : > "$log"
    # Keeps the caller's input (a background job would get /dev/null), so a
    # caller can feed the simulator's --control channel: start_sim ... 0<>FIFO
    "$@" 0<&0 > "$log" 2>&1 &
    SIM_PID=$!
    SIM_PORT=""
    for _ in $(seq "$SIM_START_TRIES"); do
        SIM_PORT="$(sed -n 's/^tcp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$log")"
        [ -n "$SIM_PORT" ] && return 0
        kill -0 "$SIM_PID" 2> /dev/null || break
        sleep 0.1
    done
    echo "xbc-plc-sim did not start:" >&2
    cat "$log" >&2
    return 1
}

stop_sim() {
    [ -n "${SIM_PID:-}" ] || return 0
    kill "$SIM_PID" 2> /dev/null || true
    wait "$SIM_PID" 2> /dev/null || true
    SIM_PID=""
}
