#!/usr/bin/env bash
# The main job: builds the driver, the runtime stand-in and the PLC simulator,
# then runs the runtime stand-in against the built-in simulator for a few
# seconds: watched words, bits and contacts, writes, every change as it
# arrives, and a summary at the end. Usable from any directory.
# BUILD_DIR overrides the build directory (default: build); DEMO_SECONDS the run.
#
# --console: the same demo with the browser console on a free loopback port,
# against xbc-plc-sim started as its own process; prints the address to open
# and runs until interrupted.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

bash scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
WATCHES=(--watch D_W:0 --watch D_W:100:10 --watch M_bit:0.0 --watch M_bit:35.3:4
    --watch TX:0 --watch TX:7)

# Starts xbc-plc-sim on a free loopback port with live values (D_W 0 counts,
# M_bit 0.0 and TX 0 blink) and preset words and bits; sets SIM_PID and SIM_PORT.
start_simulator() {
    local out="$BUILD_DIR/demo-sim.log"
    local presets=(--set M_bit:35.3=1 --set TX:7=1)
    for i in $(seq 0 9); do presets+=(--set "D_W:$((100 + i))=$((1000 + i))"); done
    : > "$out"
    "$BUILD_DIR/sim/xbc-plc-sim" --port 0 --counter D_W:0 --blink M_bit:0.0 --blink TX:0 \
        "${presets[@]}" > "$out" 2>&1 &
    SIM_PID=$!
    SIM_PORT=""
    for _ in $(seq 100); do
        SIM_PORT="$(sed -n 's/^tcp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$out")"
        [ -n "$SIM_PORT" ] && return 0
        sleep 0.1
    done
    echo "demo: the simulator did not start:" >&2
    cat "$out" >&2
    return 1
}

# The console demo: simulator and runtime stand-in in the background, their
# output in logs, until Ctrl+C.
run_console_demo() {
    local log="$BUILD_DIR/demo-host.log"
    HOST_PID=""
    trap 'kill $HOST_PID $SIM_PID 2> /dev/null || true; wait 2> /dev/null || true' EXIT
    trap 'exit 0' INT TERM
    start_simulator
    : > "$log"
    "$BUILD_DIR/host/xbc-host" --tcp "127.0.0.1:$SIM_PORT" "${WATCHES[@]}" \
        --http 127.0.0.1:0 > "$log" 2>&1 &
    HOST_PID=$!
    local url=""
    for _ in $(seq 100); do
        url="$(sed -n 's/^console: //p' "$log")"
        [ -n "$url" ] && break
        kill -0 "$HOST_PID" 2> /dev/null || break
        sleep 0.1
    done
    if [ -z "$url" ]; then
        echo "demo: the console did not start:" >&2
        cat "$log" >&2
        exit 1
    fi
    echo "PLC simulator on 127.0.0.1:$SIM_PORT (D_W 0 counts, M_bit 0.0 and TX 0 blink)."
    echo
    echo "    Open the console: $url"
    echo
    echo "Logs: $log, $BUILD_DIR/demo-sim.log. Ctrl+C stops the demo."
    wait "$HOST_PID"
}

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target ls_xbc_cpu_direct xbc-host xbc-plc-sim

echo
echo "Driver library: $(cd "$BUILD_DIR" && pwd)/libls_xbc_cpu_direct.so"
if [ "${1:-}" = "--console" ]; then
    run_console_demo
    exit 0
fi
echo "Running the runtime stand-in against the built-in PLC simulator:"
echo
"$BUILD_DIR/host/xbc-host" "${WATCHES[@]}" \
    --write D_W:100=1234 --write M_bit:35.5=1 --write TX:9=1 \
    --duration "${DEMO_SECONDS:-5}"
