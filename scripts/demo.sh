#!/usr/bin/env bash
# The main job: builds the driver, the runtime stand-in and the PLC simulator,
# starts xbc-plc-sim as its own process on a free loopback port and runs the
# runtime stand-in against it for a few seconds: watched words, bits and
# contacts, writes, every change as it arrives, and a summary at the end. The
# simulator is stopped when the demo ends or is interrupted. Usable from any
# directory. BUILD_DIR overrides the build directory (default: build);
# DEMO_SECONDS the run.
#
# --console: the same demo with the browser console on a free loopback port;
# prints the address to open and runs until interrupted.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
source scripts/sim-process.sh

# Only what the demo builds and runs; the test command installs the rest.
bash scripts/install-deps.sh demo

BUILD_DIR="${BUILD_DIR:-build}"
WATCHES=(--watch D_W:0 --watch D_W:100:10 --watch M_bit:0.0 --watch M_bit:35.3:4
    --watch TX:0 --watch TX:7)
SIM_LOG="$BUILD_DIR/demo-sim.log"
HOST_PID=""

# Ends whatever the demo started, however it ends.
stop_demo() {
    [ -z "$HOST_PID" ] || kill "$HOST_PID" 2> /dev/null || true
    stop_sim
    wait 2> /dev/null || true
}

# xbc-plc-sim with live values (D_W 0 counts, M_bit 0.0 and TX 0 blink) and
# preset words and bits; sets SIM_PID and SIM_PORT.
start_simulator() {
    local presets=(--set M_bit:35.3=1 --set TX:7=1)
    for i in $(seq 0 9); do presets+=(--set "D_W:$((100 + i))=$((1000 + i))"); done
    start_sim "$SIM_LOG" "$BUILD_DIR/sim/xbc-plc-sim" --port 0 --counter D_W:0 \
        --blink M_bit:0.0 --blink TX:0 "${presets[@]}"
    echo "PLC simulator xbc-plc-sim on 127.0.0.1:$SIM_PORT (D_W 0 counts, M_bit 0.0 and TX 0 blink)."
}

# The runtime stand-in in the foreground: writes after the first poll cycle.
run_demo() {
    echo "Running the runtime stand-in against it:"
    echo
    "$BUILD_DIR/host/xbc-host" --tcp "127.0.0.1:$SIM_PORT" "${WATCHES[@]}" \
        --write D_W:100=1234 --write M_bit:35.5=1 --write TX:9=1 \
        --duration "${DEMO_SECONDS:-5}"
}

# The console demo: the runtime stand-in in the background, its output in a
# log, until Ctrl+C.
run_console_demo() {
    local log="$BUILD_DIR/demo-host.log"
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
    echo
    echo "    Open the console: $url"
    echo
    echo "Logs: $log, $SIM_LOG. Ctrl+C stops the demo."
    wait "$HOST_PID"
}

# Without GoogleTest (the demo does not install it) the tests are left out
# of the build; a build directory that has them keeps them.
DEMO_CMAKE_ARGS=()
if [ "$(dpkg-query -W -f='${Status}' libgtest-dev 2> /dev/null)" != "install ok installed" ]; then
    DEMO_CMAKE_ARGS+=(-DXBC_BUILD_TESTS=OFF)
fi
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${DEMO_CMAKE_ARGS[@]}" > /dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target ls_xbc_cpu_direct xbc-host xbc-plc-sim

echo
echo "Driver library: $(cd "$BUILD_DIR" && pwd)/libls_xbc_cpu_direct.so"
trap stop_demo EXIT
trap 'exit 0' INT TERM
start_simulator
if [ "${1:-}" = "--console" ]; then
    run_console_demo
else
    run_demo
fi
