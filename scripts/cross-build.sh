#!/usr/bin/env bash
# Cross build for arm64 or armhf panels: makes a sysroot from Debian 12's
# packages, builds everything with Debian's cross compilers through
# cmake/toolchain-linux-cross.cmake, runs the whole test suite under qemu-user
# and builds that architecture's Debian packages.
#
#   bash scripts/cross-build.sh arm64|armhf
#
# Nothing is installed into the host system for the target: the packages are
# fetched with apt-get download through a private apt configuration and state
# (the target architecture is known to that state only) and unpacked with
# dpkg -x. The fuzzers are not cross built: libFuzzer runs natively only.
#
# BUILD_DIR      build directory (default build-pkg-ARCH)
# XBC_QT_MAJOR   Qt major version (default 5)
# SYSROOT_CACHE  where sysroots and apt state are kept between runs
#                (default build-pkg-sysroot)
set -euo pipefail

ARCH="${1:-}"
case "$ARCH" in
    arm64) TRIPLET=aarch64-linux-gnu ;;
    armhf) TRIPLET=arm-linux-gnueabihf ;;
    *)
        echo "usage: $0 arm64|armhf" >&2
        exit 2
        ;;
esac

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
bash scripts/install-deps.sh

QT_MAJOR="${XBC_QT_MAJOR:-5}"
BUILD_DIR="${BUILD_DIR:-build-pkg-$ARCH}"
CACHE="$(mkdir -p "${SYSROOT_CACHE:-build-pkg-sysroot}" && cd "${SYSROOT_CACHE:-build-pkg-sysroot}" && pwd)"
JOBS="$(nproc)"

# The sysroot's packages: the C and C++ runtime, and every library the code
# links, with its headers. Their dependencies come along. Add the -dev package
# here when the code links another library.
SYSROOT_PACKAGES=(
    libc6-dev libstdc++-12-dev
    libgtest-dev libgmock-dev
    libpcap-dev
    libcpp-httplib-dev
)
if [ "$QT_MAJOR" = 6 ]; then
    SYSROOT_PACKAGES+=(qt6-base-dev qt6-serialport-dev)
else
    SYSROOT_PACKAGES+=(qtbase5-dev libqt5serialport5-dev)
fi

# Dependencies a build never touches (GUI, OpenGL, the compiler's sanitizer
# runtimes, perl): left out of the download, so the sysroot stays small.
SYSROOT_SKIP=(
    libllvm15 libz3-4 libgl1-mesa-dri libglx-mesa0 libgl1 libglx0 libegl1 libegl-mesa0
    libgles2 libgl-dev libglx-dev libegl-dev libgles-dev libvulkan-dev libvulkan1
    libqt5gui5 libqt5widgets5 libqt5opengl5 libqt5opengl5-dev libqt5printsupport5
    libqt5sql5 libqt5test5 libqt5concurrent5 libqt5xml5 libqt5dbus5
    libqt6gui6 libqt6widgets6 libqt6opengl6 libqt6opengl6-dev libqt6printsupport6
    libqt6sql6 libqt6test6 libqt6concurrent6 libqt6xml6 libqt6dbus6 libqt6openglwidgets6
    perl perl-base perl-modules-5.36 libperl5.36
    libasan8 libtsan2 libubsan1 libhwasan0 liblsan0 libitm1
)

SYSROOT="$CACHE/$ARCH-qt$QT_MAJOR"
APT_DIR="$CACHE/apt-$ARCH"
step() { echo; echo "=== cross $ARCH: $*"; }

# A private apt: the host's sources and settings, but its own package lists,
# cache and an empty package database, for the target architecture only.
APT_OPTIONS=(-o "APT::Architecture=$ARCH" -o "APT::Architectures=$ARCH"
    -o "Dir::State=$APT_DIR/state" -o "Dir::State::status=$APT_DIR/status"
    -o "Dir::Cache=$APT_DIR/cache" -o "Debug::NoLocking=true" -o "APT::Sandbox::User=root"
    -o "APT::Install-Recommends=false" -o "APT::Install-Suggests=false" -o "Acquire::Retries=3")
APT=(apt-get -q "${APT_OPTIONS[@]}")

make_sysroot() {
    local stamp="$SYSROOT/.packages"
    if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${SYSROOT_PACKAGES[*]} - ${SYSROOT_SKIP[*]}" ]; then
        echo "sysroot $SYSROOT is up to date"
        return
    fi
    mkdir -p "$APT_DIR/state/lists/partial" "$APT_DIR/cache/archives/partial" "$APT_DIR/debs"
    : > "$APT_DIR/status"
    # A mirror caught mid-sync fails an index now and then: try again, and
    # in the end go on with the indexes that did arrive (the main suite at
    # least; a missing update suite only means older package versions).
    local attempt
    for attempt in 1 2 3; do
        "${APT[@]}" update > "$APT_DIR/update.log" 2>&1 && break
        if [ "$attempt" -eq 3 ]; then
            ls "$APT_DIR/state/lists/"*_main_binary-"${ARCH}"_Packages* > /dev/null 2>&1 ||
                { cat "$APT_DIR/update.log"; exit 1; }
            echo "cross-build: some package indexes failed, going on without them:" >&2
            grep -E '^(E|Err):' "$APT_DIR/update.log" >&2 || true
            break
        fi
        sleep $((attempt * 10))
    done
    # apt resolves the dependencies against the empty database; the packages
    # it would install are the sysroot.
    local wanted
    wanted="$("${APT[@]}" install -s "${SYSROOT_PACKAGES[@]}" | awk '/^Inst /{print $2}' |
        grep -vxF -f <(printf '%s\n' "${SYSROOT_SKIP[@]}"))"
    [ -n "$wanted" ] || { echo "cross-build: apt resolved no packages" >&2; exit 1; }
    (cd "$APT_DIR/debs" && "${APT[@]}" download $wanted > /dev/null)
    rm -rf "$SYSROOT"
    mkdir -p "$SYSROOT"
    local count=0
    for pkg in $wanted; do
        dpkg -x "$(ls "$APT_DIR/debs/${pkg}"_*_{"$ARCH",all}.deb 2>/dev/null | sort | tail -n 1)" "$SYSROOT"
        count=$((count + 1))
    done
    # Absolute links point into the host's root: make them relative.
    find "$SYSROOT" -type l -lname '/*' | while read -r link; do
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$SYSROOT$(readlink "$link")")" "$link"
    done
    echo "${SYSROOT_PACKAGES[*]} - ${SYSROOT_SKIP[*]}" > "$stamp"
    echo "sysroot $SYSROOT: $count packages, $(du -sh "$APT_DIR/debs" | cut -f1) downloaded"
}

step "sysroot from Debian 12 packages"
make_sysroot

step "build (Qt $QT_MAJOR)"
QT_HOST=()
if [ "$QT_MAJOR" = 6 ]; then
    QT_HOST=(-DQT_HOST_PATH=/usr)   # Qt 6 runs its host tools from the build machine
fi
cmake -S . -B "$BUILD_DIR" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-linux-cross.cmake" \
    -DXBC_TRIPLET="$TRIPLET" -DXBC_SYSROOT="$SYSROOT" -DXBC_QT_MAJOR="$QT_MAJOR" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$TRIPLET" \
    -DXBC_BUILD_TESTS=ON -DXBC_BUILD_BENCH=OFF "${QT_HOST[@]}" > /dev/null
cmake --build "$BUILD_DIR" -j"$JOBS"

step "test suite under qemu-user"
# Tests that start the programs themselves run them through XBC_EMULATOR
# (empty on a native build): no binfmt registration is needed on the host.
QEMU="qemu-$( [ "$ARCH" = arm64 ] && echo aarch64 || echo arm)"
export XBC_EMULATOR="$QEMU -L $SYSROOT"
# Emulated code runs several times slower, and the machine may be busy: a
# test that times a reconnect pause gets a second try.
ctest --test-dir "$BUILD_DIR" --output-on-failure --timeout 300 -j"$JOBS" --repeat until-pass:2

step "Debian packages"
(cd "$BUILD_DIR" && cpack -G DEB > cpack.log) || { cat "$BUILD_DIR/cpack.log"; exit 1; }
for deb in "$BUILD_DIR"/*.deb; do
    echo "$deb"
    dpkg-deb -f "$deb" Package Architecture Version Depends | sed 's/^/    /'
done
