#!/usr/bin/env bash
# xbc-host as a user runs it: against xbc-plc-sim started as its own process
# on a free loopback port, with the host options given; the host's output and
# exit code are the test's.
# host_with_sim.sh XBC_PLC_SIM XBC_HOST WORK_DIR [HOST OPTION...]
# XBC_EMULATOR runs both programs (qemu-user for cross builds).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source "$HERE/../../scripts/sim-process.sh"
SIM_PROGRAM="$1" HOST_PROGRAM="$2" WORK_DIR="$3"
shift 3
read -r -a EMULATOR <<< "${XBC_EMULATOR:-}"

mkdir -p "$WORK_DIR"
trap stop_sim EXIT
start_sim "$WORK_DIR/sim.log" "${EMULATOR[@]}" "$SIM_PROGRAM" --port 0 --counter D_W:0 --blink TX:0
"${EMULATOR[@]}" "$HOST_PROGRAM" --tcp "127.0.0.1:$SIM_PORT" "$@"
