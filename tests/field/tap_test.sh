#!/usr/bin/env bash
# xbc-host -> xbc-tap -> xbc-plc-sim, over TCP or over two pseudo-terminal
# pairs (socat joins the runtime's pair to the tap; the simulator serves the
# other), with seeded reply faults:
#  - the notifications are the same as without the tap;
#  - tshark with the dissector decodes the tap's capture frame by frame as it
#    decodes xbc-host's own capture of the same run;
#  - the tap's capture replayed to a fresh xbc-host gives the same
#    notifications again;
#  - TCP only: the tap survives the runtime leaving and the PLC dropping the
#    link; the runtime reconnects through it and values flow again.
#   tap_test.sh BUILD_DIR SOURCE_DIR tcp|pty
set -euo pipefail
source "$(dirname "$0")/field.sh"
field_programs "$1"
source_dir="$2"
mode="$3"
work="$(mktemp -d)"
SOCAT_PID=""
PLC_PID=""
cleanup() {
    stop_tap
    stop_sim
    [ -z "$PLC_PID" ] || kill "$PLC_PID" 2> /dev/null || true
    [ -z "$SOCAT_PID" ] || kill "$SOCAT_PID" 2> /dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# A faulty run: reply faults, reads of words and bits, and writes of words
# and bits, so retries and write outcomes show. Not doubled replies: whether
# the second copy is read as the next reply depends on timing, with or
# without a tap.
SIM_ARGS=(--port 0 --faults drop=6,corrupt=6,truncate=4,nak=6,seed=11
    --set D_W:100=11 --set D_W:103=44 --set M_bit:35.1=1)
HOST_ARGS=(--watch D_W:100:6 --watch M_bit:35.0:8 --write D_W:102=777 --write M_bit:35.2=1
    --write D_W:104=5,6 --write M_bit:35.4=1,0,1 --duration 3)

# The PLC link of a simulator just started: TCP port or pseudo-terminal.
plc_link() {
    if [ "$mode" = tcp ]; then
        echo "--tcp 127.0.0.1:$SIM_PORT"
    else
        echo "--serial $(sed -n 's/^pty //p' "$1")"
    fi
}

# Without the tap; xbc-host's own capture kept for the comparison below.
start_sim "$work/sim1.log" "$SIM" "${SIM_ARGS[@]}" --pty
read -r -a link < <(plc_link "$work/sim1.log")
run_host "$work/direct" "${link[@]}" "${HOST_ARGS[@]}"
stop_sim

# Through the tap, the same simulator afresh. The TCP simulator takes
# commands on a pipe for the second part.
start_controlled_sim "$work/control" "$work/sim2.log" "$SIM" "${SIM_ARGS[@]}" --pty
PLC_PID=$SIM_PID
PLC_PORT=$SIM_PORT
if [ "$mode" = tcp ]; then
    start_tap "$work/tap.log" --listen 0 --plc "127.0.0.1:$SIM_PORT" --capture "$work/tap.pcap"
    runtime_link=(--tcp "127.0.0.1:$TAP_PORT")
else
    socat pty,raw,echo=0,link="$work/runtime-end" pty,raw,echo=0,link="$work/tap-end" &
    SOCAT_PID=$!
    for _ in $(seq 50); do
        [ -e "$work/runtime-end" ] && [ -e "$work/tap-end" ] && break
        sleep 0.1
    done
    start_tap "$work/tap.log" --serial-runtime "$work/tap-end" \
        --serial-plc "$(sed -n 's/^pty //p' "$work/sim2.log")" --capture "$work/tap.pcap"
    runtime_link=(--serial "$work/runtime-end")
fi
run_host "$work/tapped" "${runtime_link[@]}" "${HOST_ARGS[@]}" --capture "$work/host.pcap"
same_notes "$mode: with the tap against without" "$work/direct" "$work/tapped"

# Frame by frame, the tap saw what xbc-host sent and received.
decode() {
    tshark -r "$1" -X lua_script:"$source_dir/tools/wireshark/ls_xbc_cpu_direct.lua" \
        -T fields -e _ws.col.Protocol -e _ws.col.Info 2> /dev/null
}
decode "$work/host.pcap" > "$work/host.frames"
decode "$work/tap.pcap" > "$work/tap.frames"
if grep -v '^XBC' "$work/tap.frames" | head -5 | grep -q . || [ ! -s "$work/tap.frames" ]; then
    echo "FAIL: $mode: tshark does not decode every frame of the tap's capture as XBC:" >&2
    grep -v '^XBC' "$work/tap.frames" | head -5 >&2
    exit 1
fi
if ! diff -u "$work/host.frames" "$work/tap.frames" > "$work/frames.diff"; then
    echo "FAIL: $mode: the tap's capture differs from xbc-host's own:" >&2
    head -30 "$work/frames.diff" >&2
    exit 1
fi
for kind in 'checksum wrong' 'NAK' 'timeout'; do
    grep -qi "$kind" "$work/tap.frames" || { echo "FAIL: $mode: no '$kind' frame in the faulty run" >&2; exit 1; }
done

# The tap's capture replayed to a fresh host.
start_sim "$work/replay.log" "$SIM" --port 0 --replay "$work/tap.pcap"
run_host "$work/replayed" --tcp "127.0.0.1:$SIM_PORT" "${HOST_ARGS[@]}"
stop_sim
same_notes "$mode: the tap's capture replayed" "$work/direct" "$work/replayed"
echo "$mode: $(wc -l < "$work/direct") notifications the same without the tap, with it and replayed; $(wc -l < "$work/tap.frames") frames decoded"

# A request the capture never saw is answered from the memory the capture
# shows; with --replay-strict it gets no answer and a report line.
for strict in "" --replay-strict; do
    start_sim "$work/unseen.log" "$SIM" --port 0 --replay "$work/tap.pcap" $strict
    run_host "$work/unseen" --tcp "127.0.0.1:$SIM_PORT" --watch D_W:103 --duration 1
    stop_sim
    if { [ -z "$strict" ] && ! grep -qx 'D_W,103,44' "$work/unseen"; } ||
        { [ -n "$strict" ] && { [ -s "$work/unseen" ] || ! grep -q 'not in the capture' "$work/unseen.log"; }; }; then
        echo "FAIL: $mode: a request not in the capture, replayed ${strict:-from the image}:" >&2
        cat "$work/unseen" "$work/unseen.log" >&2
        exit 1
    fi
done

[ "$mode" = tcp ] || exit 0
# The latency the tap adds: xbc-host's poll cycle (one exchange per watched
# block) with and without it, no faults; at most 1 ms each way.
echo "faults off" >&3
cycle_ms() { # cycle_ms PORT
    run_host "$work/cycle" --tcp "127.0.0.1:$1" --watch D_W:100:2 --duration 2
    sed -n 's/.*average poll cycle \([0-9.]*\) ms.*/\1/p' "$work/cycle.out"
}
direct_ms="$(cycle_ms "$PLC_PORT")"
tapped_ms="$(cycle_ms "$TAP_PORT")"
# Sanitizers slow every program down several times: figures, no verdict.
verdict=""
if ldd "$TAP" | grep -q 'lib[at]san'; then
    verdict=" (sanitizer build: not judged)"
elif ! awk -v d="$direct_ms" -v t="$tapped_ms" 'BEGIN { exit !(d > 0 && (t - d) / 2 < 1) }'; then
    echo "FAIL: tcp: the tap adds too much: poll cycle ${tapped_ms} ms with it, ${direct_ms} ms without" >&2
    exit 1
fi
echo "tcp: poll cycle ${direct_ms} ms without the tap, ${tapped_ms} ms with it$verdict"

# The runtime left (the runs above ended); a new one connects through the same
# tap, and the PLC drops the link in the middle of its run.
run_host "$work/second" --tcp "127.0.0.1:$TAP_PORT" --watch D_W:100:2 --write D_W:100=1 \
    --duration 4 &
host_pid=$!
sleep 1.5
echo "drop link" >&3
wait "$host_pid" || true
if ! grep -q 'PLC link lost' "$work/tap.log" || [ "$(grep -c 'PLC connected' "$work/tap.log")" -lt 3 ] ||
    ! grep -q 'reconnects [1-9]' "$work/second.out"; then
    echo "FAIL: tcp: the runtime did not reconnect through the tap after the drop:" >&2
    cat "$work/tap.log" "$work/second.out" >&2
    exit 1
fi
echo "tcp: the tap survived the runtime leaving and the PLC dropping the link"
