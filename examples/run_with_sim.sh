#!/usr/bin/env bash
# Runs the minimal runtime (or a copy built elsewhere) against xbc-plc-sim
# started as its own process on a free loopback port, and checks what it
# printed: the driver's version, the values it watches, its two writes read
# back from the PLC, the end of its condition read, and exit code 0.
# run_with_sim.sh XBC_PLC_SIM WORK_DIR MINIMAL_RUNTIME DRIVER
# XBC_EMULATOR runs both programs (qemu-user for cross builds).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$HERE/../scripts/sim-process.sh"
SIM_PROGRAM="$1" WORK_DIR="$2" RUNTIME="$3" DRIVER="$4"
read -r -a EMULATOR <<< "${XBC_EMULATOR:-}"

mkdir -p "$WORK_DIR"
trap stop_sim EXIT
start_sim "$WORK_DIR/sim.log" "${EMULATOR[@]}" "$SIM_PROGRAM" --port 0 --set D_W:100=7 \
    --set M_bit:35.3=1 --set TX:7=1
OUT="$WORK_DIR/minimal_runtime.out"
"${EMULATOR[@]}" "$RUNTIME" "$DRIVER" 127.0.0.1 "$SIM_PORT" 3 | tee "$OUT"
for expected in '^driver version [0-9]' 'station 1: D_W 100 = 7$' 'station 1: M_bit 563 = 1$' \
    'station 1: TX 7 = 1$' 'station 1: D_W 101 = 1234$' 'station 1: M_bit 564 = 1$' \
    '^condition read ended$'; do
    grep -qE -- "$expected" "$OUT" || { echo "minimal runtime: no line matching '$expected'" >&2; exit 1; }
done
