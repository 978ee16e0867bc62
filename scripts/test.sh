#!/usr/bin/env bash
# Builds the project and runs every test: the library, the tools and all tests
# built with AddressSanitizer and UndefinedBehaviorSanitizer, the thread stress
# test under ThreadSanitizer, and a short run of each fuzzer. Usable from any
# directory. BUILD_DIR overrides the test build directory (default:
# build-test); the others sit beside it with the suffixes -tsan and -fuzz.
# FUZZ_SECONDS sets the length of each fuzzer's run (default 30).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

bash scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build-test}"
JOBS="$(nproc)"
step() { echo; echo "=== $*"; }

step "build with AddressSanitizer and UndefinedBehaviorSanitizer, and every test"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXBC_BUILD_TESTS=ON \
    -DXBC_SANITIZE=address,undefined > /dev/null
cmake --build "$BUILD_DIR" -j"$JOBS"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$BUILD_DIR" --output-on-failure --timeout 300

step "ThreadSanitizer: screen and communication threads"
cmake -S . -B "$BUILD_DIR-tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXBC_BUILD_TESTS=ON \
    -DXBC_SANITIZE=thread -DXBC_BUILD_BENCH=OFF > /dev/null
cmake --build "$BUILD_DIR-tsan" -j"$JOBS" --target xbc_robustness_tests
TSAN_OPTIONS=halt_on_error=1 "$BUILD_DIR-tsan/tests/xbc_robustness_tests" \
    --gtest_filter='ThreadStress.*'

step "fuzzers, ${FUZZ_SECONDS:-30} s each"
CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DXBC_FUZZ=ON -DXBC_BUILD_TESTS=OFF -DXBC_BUILD_BENCH=OFF \
    -DXBC_FUZZ_SECONDS="${FUZZ_SECONDS:-30}" > /dev/null
cmake --build "$BUILD_DIR-fuzz" -j"$JOBS" --target fuzz_receive fuzz_addresses fuzz_setup
ctest --test-dir "$BUILD_DIR-fuzz" --output-on-failure --timeout 600

step "all tests passed"
