#!/usr/bin/env bash
# Installs the Debian packages this project needs, only those that are missing.
# Safe to run again: with everything present it does nothing (and needs no root).
#
#   install-deps.sh demo   what the demo builds and runs: compiler, CMake, Qt
#                          Core, Network and SerialPort, libpcap, cpp-httplib
#   install-deps.sh        the demo's packages and everything the tests need
set -euo pipefail

# The demo: the driver, xbc-plc-sim and xbc-host (libpcap for --capture,
# cpp-httplib for --http).
DEMO_PACKAGES="cmake g++ make pkg-config qtbase5-dev libqt5serialport5-dev \
libpcap-dev libcpp-httplib-dev"

# The tests. GoogleTest and Google Benchmark; clang and llvm for fuzzing,
# clang-format checks the layout; the Qt 6 ones for the second build; dpkg-dev,
# fakeroot, file and lintian for the Debian packages; the cross compilers and
# qemu-user for the arm64 and armhf builds; doxygen builds the reference,
# help2man the manual pages; libmodbus for the loopback comparison in bench/
# (its TCP client and server against xbc-host and xbc-plc-sim).
TEST_PACKAGES="binutils libgtest-dev libgmock-dev libbenchmark-dev clang clang-format llvm \
libclang-rt-14-dev qt6-base-dev qt6-serialport-dev dpkg-dev fakeroot file lintian \
g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user doxygen help2man libmodbus-dev"
# tshark runs the dissector over the captures in the tests (non-interactive:
# it is not set up to capture as a non-root user). chromium runs the console's
# browser test, driven from Node (npm installs playwright-core, which
# downloads no browser). A node that came from elsewhere with its own npm is
# left alone.
TEST_PACKAGES="$TEST_PACKAGES tshark chromium"
# socat joins two pseudo-terminals into a serial line for the tap tests.
TEST_PACKAGES="$TEST_PACKAGES socat"
command -v node > /dev/null || TEST_PACKAGES="$TEST_PACKAGES nodejs"
command -v npm > /dev/null || TEST_PACKAGES="$TEST_PACKAGES npm"

case "${1:-all}" in
    demo) PACKAGES="$DEMO_PACKAGES" ;;
    all) PACKAGES="$DEMO_PACKAGES $TEST_PACKAGES" ;;
    *)
        echo "install-deps: unknown set '$1' (demo, or nothing for everything)" >&2
        exit 2
        ;;
esac

missing=()
for pkg in $PACKAGES; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    if [ "$status" != "install ok installed" ]; then
        missing+=("$pkg")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
    SUDO=()
elif command -v sudo >/dev/null 2>&1; then
    SUDO=(sudo)
else
    echo "install-deps: missing packages (${missing[*]}) and not root; install them as root" >&2
    exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    "${missing[@]}"
