#!/usr/bin/env bash
# The main job: builds the driver, the runtime stand-in and the PLC simulator,
# then runs the runtime stand-in against the built-in simulator for a few
# seconds: watched words, bits and contacts, writes, every change as it
# arrives, and a summary at the end. Usable from any directory.
# BUILD_DIR overrides the build directory (default: build); DEMO_SECONDS the run.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

bash scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target ls_xbc_cpu_direct xbc-host xbc-plc-sim

echo
echo "Driver library: $(cd "$BUILD_DIR" && pwd)/libls_xbc_cpu_direct.so"
echo "Running the runtime stand-in against the built-in PLC simulator:"
echo
"$BUILD_DIR/host/xbc-host" \
    --watch D_W:0 --watch D_W:100:10 --watch M_bit:0.0 --watch M_bit:35.3:4 \
    --watch TX:0 --watch TX:7 \
    --write D_W:100=1234 --write M_bit:35.5=1 --write TX:9=1 \
    --duration "${DEMO_SECONDS:-5}"
