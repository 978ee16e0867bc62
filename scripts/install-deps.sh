#!/usr/bin/env bash
# Installs the Debian packages this project needs, only those that are missing.
# Safe to run again: with everything present it does nothing (and needs no root).
set -euo pipefail

# Build, test and tool packages. clang and llvm are for fuzzing, clang-format
# checks the layout; the Qt 6 ones for the second build; dpkg-dev, fakeroot,
# file and lintian for the Debian packages; the cross compilers and qemu-user
# for the arm64 and armhf builds.
PACKAGES="cmake g++ make pkg-config binutils qtbase5-dev libqt5serialport5-dev \
libgtest-dev libgmock-dev libbenchmark-dev clang clang-format llvm libclang-rt-14-dev \
qt6-base-dev qt6-serialport-dev dpkg-dev fakeroot file lintian \
g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user"
# libpcap for xbc-host --capture; tshark runs the dissector over the captures
# in the tests (non-interactive: it is not set up to capture as a non-root user).
PACKAGES="$PACKAGES libpcap-dev tshark"
# cpp-httplib for xbc-host --http; chromium runs the console's browser test,
# driven from Node (npm installs playwright-core, which downloads no browser).
# A node that came from elsewhere with its own npm is left alone.
PACKAGES="$PACKAGES libcpp-httplib-dev chromium"
command -v node > /dev/null || PACKAGES="$PACKAGES nodejs"
command -v npm > /dev/null || PACKAGES="$PACKAGES npm"

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
