#!/usr/bin/env bash
# The main job: builds the driver library and shows where it is and what it
# exports. Usable from any directory.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

bash scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$BUILD_DIR" -j"$(nproc)" --target ls_xbc_cpu_direct

LIB="$ROOT/$BUILD_DIR/libls_xbc_cpu_direct.so"
case "$BUILD_DIR" in /*) LIB="$BUILD_DIR/libls_xbc_cpu_direct.so" ;; esac
if [ ! -f "$LIB" ]; then
    echo "demo: library not found at $LIB" >&2
    exit 1
fi

echo
echo "Driver library: $LIB"
echo "Exported symbols (nm -D --defined-only; the runtime resolves intf_* and driver by name):"
nm -D --defined-only "$LIB" | awk 'NF >= 3 { print "  " $3 " (" $2 ")" }' | sort -k1,1
