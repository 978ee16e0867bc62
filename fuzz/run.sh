#!/usr/bin/env bash
# Longer fuzzing runs, each target starting from its seed corpus and dictionary.
#
#   bash fuzz/run.sh [--merge] [--seeds] [SECONDS_PER_TARGET] [TARGET...]
#
# SECONDS_PER_TARGET defaults to 600; the targets to fuzz_receive, fuzz_addresses,
# fuzz_setup and fuzz_receive_large. New inputs go to BUILD_DIR/corpus/<target>
# (BUILD_DIR defaults to build-fuzz), never into the repository, unless:
#   --merge  merges them into fuzz/corpus/<target> afterwards (-merge=1 keeps
#            only inputs that add coverage);
#   --seeds  first rewrites fuzz/corpus from fuzz/make_seeds.cpp.
# Crashes, leaks and timeouts are written to BUILD_DIR/findings/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."

merge=0
seeds=0
seconds=600
targets=()
for arg in "$@"; do
  case "$arg" in
    --merge) merge=1 ;;
    --seeds) seeds=1 ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    ''|*[!0-9]*) targets+=("$arg") ;;
    *) seconds=$arg ;;
  esac
done
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_receive fuzz_addresses fuzz_setup fuzz_receive_large)
build=${BUILD_DIR:-build-fuzz}

bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B "$build" -DXBC_FUZZ=ON -DXBC_BUILD_TESTS=OFF \
  -DXBC_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" fuzz_make_seeds

if [ "$seeds" = 1 ]; then
  rm -rf fuzz/corpus
  "$build/fuzz/fuzz_make_seeds" fuzz/corpus
fi

status=0
for target in "${targets[@]}"; do
  source=${target%_large}
  work="$build/corpus/$target"
  findings="$build/findings/$target"
  mkdir -p "$work" "$findings" "fuzz/corpus/$source"
  echo "== $target for $seconds s"
  # The repository's corpus is read as a second directory: only $work grows.
  "$build/fuzz/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=3072 \
    -print_final_stats=1 -dict="fuzz/$source.dict" -artifact_prefix="$findings/" \
    "$work" "fuzz/corpus/$source" || status=1
  if [ "$merge" = 1 ]; then
    echo "== merging new inputs of $target into fuzz/corpus/$source"
    "$build/fuzz/$target" -merge=1 -timeout=20 -rss_limit_mb=3072 \
      "fuzz/corpus/$source" "$work"
  fi
done
exit $status
