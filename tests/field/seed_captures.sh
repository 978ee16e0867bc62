#!/usr/bin/env bash
# Makes the seed captures of tests/field/captures again: seeded faulty runs of
# the simulator taken through xbc-tap, one capture of each kind of write taken
# by xbc-host --capture, and, where dumpcap may capture on loopback, one
# Wireshark capture of TCP port 8000. Each becomes a test through
# scripts/field-test-add.sh, which records its expected notifications.
#   tests/field/seed_captures.sh BUILD_DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
source "$root/tests/field/field.sh"
build="$(cd "$1" && pwd)"
field_programs "$build"
work="$(mktemp -d)"
trap 'stop_tap; stop_sim; [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
WATCH=(--watch D_W:100:4 --watch M_bit:35.0:4)
PRESET=(--set D_W:100=11 --set D_W:101=22 --set D_W:103=44 --set M_bit:35.1=1)
# Values that change while the faults strike, so what the runtime saw depends
# on which replies came through.
LIVE=(--counter D_W:101 --blink M_bit:35.0 --period 100)

add() { # add NAME CAPTURE HOST_ARGS...
    local name="$1" capture="$2"
    shift 2
    rm -f "$root/tests/field/captures/$name".*
    BUILD_DIR="$build" bash "$root/scripts/field-test-add.sh" "$capture" "$name" -- "$@"
}

# A faulty run of SECONDS through the tap; "drop link" on the control pipe
# halfway when the faults name it.
through_tap() { # through_tap NAME SECONDS FAULTS HOST_ARGS...
    local name="$1" seconds="$2" faults="$3"
    shift 3
    start_controlled_sim "$work/control" "$work/sim.log" "$SIM" --port 0 \
        --faults "${faults%,droplink}" "${PRESET[@]}" "${LIVE[@]}"
    start_tap "$work/tap.log" --listen 0 --plc "127.0.0.1:$SIM_PORT" --capture "$work/$name.pcap" --quiet
    "$HOST" --tcp "127.0.0.1:$TAP_PORT" "$@" --duration "$seconds" > "$work/$name.out" 2>&1 &
    local host_pid=$!
    if [[ "$faults" == *droplink ]]; then
        sleep "$(awk -v s="$seconds" 'BEGIN { print s / 2 }')"
        echo "drop link" >&3
    fi
    wait "$host_pid" || true
    stop_tap
    stop_sim
    exec 3>&-
    add "$name" "$work/$name.pcap" "$@" --duration "$seconds"
}

through_tap faults_drop 3 drop=15,seed=1 "${WATCH[@]}"
through_tap faults_corrupt 1.5 corrupt=20,seed=2 "${WATCH[@]}"
through_tap faults_nak 1.5 nak=20,seed=3 "${WATCH[@]}"
through_tap faults_truncate_double 2 truncate=10,double=10,seed=4 "${WATCH[@]}"
through_tap faults_link_drop 2 drop=5,seed=5,droplink "${WATCH[@]}" --write D_W:102=777

# One capture of each kind of write, by xbc-host itself.
by_host() { # by_host NAME HOST_ARGS...
    local name="$1"
    shift
    start_sim "$work/sim.log" "$SIM" --port 0 "${PRESET[@]}"
    "$HOST" --tcp "127.0.0.1:$SIM_PORT" "$@" --duration 1 --capture "$work/$name.pcap" \
        > "$work/$name.out" 2>&1 || true
    stop_sim
    add "$name" "$work/$name.pcap" "$@" --duration 1
}
by_host write_word --watch D_W:100:4 --write D_W:102=777
by_host write_bit --watch M_bit:35.0:4 --write M_bit:35.2=1
by_host write_bits --watch M_bit:35.0:8 --write M_bit:35.3=1,0,1,1
by_host write_contact --watch TX:0:16 --write TX:7=1
by_host write_multi_frame --props '1#0#0#3#4' --watch D_W:200:6 --write D_W:200=1,2,3,4,5,6

# Wireshark's own capture of the TCP traffic, when dumpcap may capture.
if command -v dumpcap > /dev/null && [ "$(id -u)" -eq 0 ]; then
    start_sim "$work/sim.log" "$SIM" --port 8000 "${PRESET[@]}" "${LIVE[@]}" --faults drop=10,seed=6
    dumpcap -q -i lo -f 'tcp port 8000' -w "$work/wire.pcapng" > /dev/null 2>&1 &
    dumpcap_pid=$!
    sleep 1
    "$HOST" --tcp 127.0.0.1:8000 "${WATCH[@]}" --duration 1.5 > "$work/wire.out" 2>&1 || true
    sleep 0.5
    kill -INT "$dumpcap_pid"
    wait "$dumpcap_pid" || true
    stop_sim
    add wireshark_tcp "$work/wire.pcapng" "${WATCH[@]}" --duration 1.5
fi
