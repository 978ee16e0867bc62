#!/usr/bin/env bash
# Longer fuzzing runs: bash fuzz/run.sh [SECONDS_PER_TARGET] (default 600).
# Builds the targets with clang into build-fuzz and keeps a corpus per target.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DXBC_FUZZ=ON -DXBC_BUILD_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build-fuzz -j"$(nproc)" --target fuzz_receive fuzz_addresses fuzz_setup
for target in fuzz_receive fuzz_addresses fuzz_setup; do
  mkdir -p "build-fuzz/corpus/$target"
  echo "== $target for $seconds s"
  "build-fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
    -print_final_stats=1 "build-fuzz/corpus/$target"
done
