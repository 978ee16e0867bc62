#!/usr/bin/env bash
# Installs a build into a fresh prefix and uses it as an integrator would:
# checks the installed driver (place, soname, no RPATH, stripped), builds the
# minimal runtime of examples/ against it once with find_package and once with
# pkg-config and runs each against the installed xbc-plc-sim (each loads the
# installed driver), then runs the installed xbc-host against the installed
# xbc-plc-sim over loopback TCP.
#
# install_test.sh BUILD_DIR WORK_DIR
# Environment (set by the test's definition in CMake):
#   XBC_CMAKE             cmake to use
#   XBC_CXX, XBC_CXX_FLAGS  compiler and flags of the build (sanitizers carry over)
#   XBC_CONSUMER_ARGS     extra cmake arguments for the consumer (toolchain file)
#   XBC_EMULATOR          runs target programs (qemu-user for cross builds)
set -euo pipefail

BUILD_DIR="$1"
WORK="$2"
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
EXAMPLE="$HERE/../../examples"
source "$HERE/../../scripts/sim-process.sh"
CMAKE="${XBC_CMAKE:-cmake}"
read -r -a EMULATOR <<< "${XBC_EMULATOR:-}"
read -r -a CONSUMER_ARGS <<< "${XBC_CONSUMER_ARGS:-}"
unset XBC_DRIVER_LIBRARY

fail() { echo "install test: $*" >&2; exit 1; }
expect() { # FILE PATTERN WHAT
    grep -qE -- "$2" "$1" || { cat "$1" >&2; fail "$3: no line matching '$2' in $1"; }
}

rm -rf "$WORK"
mkdir -p "$WORK"
WORK="$(cd "$WORK" && pwd -P)"
PREFIX="$WORK/prefix"

echo "--- install into $PREFIX"
"$CMAKE" --install "$BUILD_DIR" --prefix "$PREFIX" > "$WORK/install.log"
DRIVER="$(find "$PREFIX" -path '*/ls_xbc_cpu_direct/libls_xbc_cpu_direct.so')"
[ -n "$DRIVER" ] || fail "no driver in a ls_xbc_cpu_direct directory under $PREFIX"
for f in "$PREFIX/include/ls_xbc_cpu_direct.h" "$PREFIX/bin/xbc-host" "$PREFIX/bin/xbc-plc-sim"; do
    [ -f "$f" ] || fail "$f not installed"
done
readelf -d "$DRIVER" > "$WORK/driver.dynamic"
expect "$WORK/driver.dynamic" 'SONAME.*\[libls_xbc_cpu_direct\.so\]' "unversioned soname"
for f in "$DRIVER" "$PREFIX/bin/xbc-host" "$PREFIX/bin/xbc-plc-sim"; do
    if readelf -d "$f" | grep -qE 'RPATH|RUNPATH'; then fail "$f carries an RPATH"; fi
    file -L "$f" | grep -q ', stripped' || fail "$f is not stripped"
done

echo "--- consumer built with find_package"
if [ ${#CONSUMER_ARGS[@]} -gt 0 ]; then
    # A cross toolchain searches packages in its sysroot only: name this one.
    CONSUMER_ARGS+=("-Dls_xbc_cpu_direct_DIR=$(dirname "$(find "$PREFIX" -name ls_xbc_cpu_directConfig.cmake)")")
fi
"$CMAKE" -S "$HERE/consumer" -B "$WORK/find" -DCMAKE_PREFIX_PATH="$PREFIX" \
    -DCMAKE_CXX_COMPILER="${XBC_CXX:-c++}" -DCMAKE_CXX_FLAGS="${XBC_CXX_FLAGS:-}" \
    "${CONSUMER_ARGS[@]}" > "$WORK/find.log" || { cat "$WORK/find.log"; fail "configure"; }
"$CMAKE" --build "$WORK/find" >> "$WORK/find.log" || { cat "$WORK/find.log"; fail "build"; }
[ "$(cat "$WORK/find/driver-path.txt")" = "$DRIVER" ] ||
    fail "the CMake package names $(cat "$WORK/find/driver-path.txt"), installed is $DRIVER"
bash "$EXAMPLE/run_with_sim.sh" "$PREFIX/bin/xbc-plc-sim" "$WORK/find-run" "$WORK/find/consumer" \
    "$DRIVER" || fail "the minimal runtime built with find_package"

if [ ${#CONSUMER_ARGS[@]} -gt 0 ]; then
    # pkg-config puts a cross build's sysroot before every path, so its file
    # serves there once the -dev package is unpacked into the sysroot.
    echo "--- consumer built with pkg-config: native builds only"
else
echo "--- consumer built with pkg-config"
PC_DIR="$(dirname "$(find "$PREFIX" -name ls_xbc_cpu_direct.pc)")"
export PKG_CONFIG_PATH="$PC_DIR${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
PC_DRIVER="$(pkg-config --variable=driver ls_xbc_cpu_direct)"
read -r -a CXX_FLAGS <<< "${XBC_CXX_FLAGS:-}"
read -r -a PC_CFLAGS <<< "$(pkg-config --cflags ls_xbc_cpu_direct)"
read -r -a PC_LIBS <<< "$(pkg-config --libs ls_xbc_cpu_direct)"
# -fPIC: Qt requires it and its pkg-config file does not say so.
"${XBC_CXX:-c++}" -std=c++17 -fPIC "${CXX_FLAGS[@]}" "$EXAMPLE/minimal_runtime.cpp" \
    -o "$WORK/pc-consumer" "${PC_CFLAGS[@]}" -Wl,--as-needed "${PC_LIBS[@]}" -ldl
[ "$(readlink -f "$PC_DRIVER")" = "$(readlink -f "$DRIVER")" ] ||
    fail "pkg-config names $PC_DRIVER, installed is $DRIVER"
bash "$EXAMPLE/run_with_sim.sh" "$PREFIX/bin/xbc-plc-sim" "$WORK/pc-run" "$WORK/pc-consumer" \
    "$PC_DRIVER" || fail "the minimal runtime built with pkg-config"
fi

echo "--- installed xbc-host against the installed xbc-plc-sim"
trap stop_sim EXIT
start_sim "$WORK/sim.out" "${EMULATOR[@]}" "$PREFIX/bin/xbc-plc-sim" --port 0 --duration 60 ||
    fail "xbc-plc-sim did not start"
PORT="$SIM_PORT"
"${EMULATOR[@]}" "$PREFIX/bin/xbc-host" --tcp "127.0.0.1:$PORT" --watch D_W:100:4 \
    --write D_W:100=1234 --duration 2 > "$WORK/host.out" 2>&1 ||
    { cat "$WORK/host.out"; fail "xbc-host failed"; }
cat "$WORK/host.out"
expect "$WORK/host.out" "^driver $DRIVER version" "installed xbc-host loads the installed driver"
expect "$WORK/host.out" "D_W 100 = 1234" "the write reached the simulator and came back"
expect "$WORK/host.out" "summary: frames sent [1-9]" "summary"

echo "--- xbc-host --driver"
if "${EMULATOR[@]}" "$PREFIX/bin/xbc-host" --driver "$WORK/missing.so" --tcp "127.0.0.1:$PORT" \
    --duration 0.2 > "$WORK/missing.out" 2>&1; then
    fail "xbc-host started with a missing driver"
fi
expect "$WORK/missing.out" "missing\.so" "--driver names the library it could not load"
echo "install test passed"
