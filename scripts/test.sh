#!/usr/bin/env bash
# Builds the project and runs every test: the layout of the C++ files, the
# reference of the public header (doxygen, any warning fails), the library,
# the tools and all tests built with AddressSanitizer and
# UndefinedBehaviorSanitizer, the thread stress test under ThreadSanitizer, a
# short run of each fuzzer, the whole suite again against Qt 6 with its Debian
# packages, the Qt 5 install and Debian packages (all six packages checked
# with lintian: no warning), and the arm64 and armhf cross builds with their
# suites under qemu-user. Prints the wall time of each stage. Usable from any
# directory. BUILD_DIR sets the test build directory (default: build-test);
# the others sit beside it with the suffixes -tsan, -fuzz, -qt6, -pkg, -arm64
# and -armhf; the reference lands in BUILD_DIR/reference/html. FUZZ_SECONDS
# sets the length of each fuzzer's run (default 30).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

BUILD_DIR="${BUILD_DIR:-build-test}"
JOBS="$(nproc)"
STAGES=()
STAGE_NAME=""
STAGE_START=0
RUN_START=$(date +%s)

stage_end() {
    [ -n "$STAGE_NAME" ] || return 0
    local took=$(($(date +%s) - STAGE_START))
    STAGES+=("$(printf '%-52s %4d:%02d' "$STAGE_NAME" $((took / 60)) $((took % 60)))")
    echo "--- $STAGE_NAME: $((took / 60)) min $((took % 60)) s"
}
step() {
    stage_end
    STAGE_NAME="$*"
    STAGE_START=$(date +%s)
    echo
    echo "=== $*"
}
print_times() {
    stage_end
    STAGE_NAME=""
    local total=$(($(date +%s) - RUN_START))
    echo
    echo "=== stage times (wall clock)"
    printf '%s\n' "${STAGES[@]}"
    printf '%-52s %4d:%02d\n' "total" $((total / 60)) $((total % 60))
}
trap print_times EXIT

# The Debian packages of a configured and built directory, listed and checked
# with lintian: any warning fails the run.
packages_and_lintian() {
    local dir="$1"
    rm -f "$dir"/*.deb
    (cd "$dir" && cpack -G DEB > cpack.log) || { cat "$dir/cpack.log"; exit 1; }
    for deb in "$dir"/*.deb; do
        echo "$deb"
        dpkg-deb -f "$deb" Package Version Architecture Depends | sed 's/^/    /'
    done
    lintian --fail-on warning "$dir"/*.deb
}

step "Debian packages the build needs"
bash scripts/install-deps.sh

step "layout: clang-format over every tracked C++ file"
bash scripts/check-format.sh

step "reference: doxygen over the public header, warnings as errors"
mkdir -p "$BUILD_DIR/reference"
XBC_REFERENCE_DIR="$BUILD_DIR/reference" doxygen docs/Doxyfile
echo "reference: $BUILD_DIR/reference/html/index.html"

step "AddressSanitizer and UndefinedBehaviorSanitizer: build, every test"
# No benchmarks here: no test runs them, and the Qt 6 pass builds them.
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DXBC_BUILD_TESTS=ON \
    -DXBC_SANITIZE=address,undefined -DXBC_BUILD_BENCH=OFF > /dev/null
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

# The passes below check builds, not memory: no sanitizers, optimised.
step "Qt 6: build (with the benchmarks), every test"
# Configured as the packages want it, so the packages come from this build.
cmake -S . -B "$BUILD_DIR-qt6" -DCMAKE_BUILD_TYPE=Release -DXBC_QT_MAJOR=6 \
    -DCMAKE_INSTALL_PREFIX=/usr -DXBC_BUILD_TESTS=ON > /dev/null
cmake --build "$BUILD_DIR-qt6" -j"$JOBS"
# The fault soak ran its minute per link in the sanitizer pass above.
ctest --test-dir "$BUILD_DIR-qt6" --output-on-failure --timeout 300 -j"$JOBS" -E '^xbc_soak_'

step "Debian packages (Qt 6, native), lintian"
packages_and_lintian "$BUILD_DIR-qt6"

step "install and Debian packages (Qt 5, native), lintian"
cmake -S . -B "$BUILD_DIR-pkg" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DXBC_BUILD_TESTS=OFF -DXBC_BUILD_BENCH=OFF > /dev/null
cmake --build "$BUILD_DIR-pkg" -j"$JOBS"
packages_and_lintian "$BUILD_DIR-pkg"

step "cross build for arm64: build, every test under qemu-user, packages"
BUILD_DIR="$BUILD_DIR-arm64" bash scripts/cross-build.sh arm64

step "cross build for armhf: build, every test under qemu-user, packages"
BUILD_DIR="$BUILD_DIR-armhf" bash scripts/cross-build.sh armhf

step "all tests passed"
