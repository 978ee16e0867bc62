#!/usr/bin/env bash
# Test command of the browser console: installs playwright-core from the lock
# file into WORK_DIR (it downloads no browser) and runs console_test.js with
# Debian's chromium.
# run.sh XBC_HOST XBC_PLC_SIM WORK_DIR SCREENSHOT_PNG
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
HOST_PROGRAM="$1" SIM_PROGRAM="$2" WORK_DIR="$3" SCREENSHOT="$4"

for tool in node npm; do
    if ! command -v "$tool" > /dev/null; then
        echo "console test: '$tool' is missing; bash scripts/install-deps.sh installs it" >&2
        exit 1
    fi
done
if [ ! -x "${CHROMIUM:-/usr/bin/chromium}" ]; then
    echo "console test: ${CHROMIUM:-/usr/bin/chromium} is missing; bash scripts/install-deps.sh installs it" >&2
    exit 1
fi

mkdir -p "$WORK_DIR" "$(dirname "$SCREENSHOT")"
if ! cmp -s "$HERE/package-lock.json" "$WORK_DIR/package-lock.json" ||
    [ ! -d "$WORK_DIR/node_modules/playwright-core" ]; then
    cp "$HERE/package.json" "$HERE/package-lock.json" "$WORK_DIR/"
    (cd "$WORK_DIR" && npm ci --no-audit --no-fund --ignore-scripts --loglevel=error)
fi
NODE_PATH="$WORK_DIR/node_modules" exec node "$HERE/console_test.js" \
    "$HOST_PROGRAM" "$SIM_PROGRAM" "$SCREENSHOT"
