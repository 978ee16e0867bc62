#!/usr/bin/env bash
# Builds the project and runs every test. Usable from any directory.
# BUILD_DIR overrides the build directory (default: build in the repository root).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

bash scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
cmake -S . -B "$BUILD_DIR" -DXBC_BUILD_TESTS=ON
cmake --build "$BUILD_DIR" -j"$(nproc)"
ctest --test-dir "$BUILD_DIR" --output-on-failure --timeout 300
