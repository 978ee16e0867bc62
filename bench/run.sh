#!/usr/bin/env bash
# Builds the project in Release and runs the benchmark suite, then prints the
# summary of ratios against their bounds. Exit code 1 when a bound is missed.
#
#   bench/run.sh                      build into build-bench/ beside the sources
#   BUILD_DIR=/tmp/b bench/run.sh     build elsewhere
#   bench/run.sh --benchmark_filter=Exchange   extra arguments go to xbc-bench
#
# Two build jobs at most (JOBS=N to change). Five repetitions of each
# benchmark; the summary takes the fastest of them. About 2 minutes.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_dir="$(dirname "$here")"
build_dir="${BUILD_DIR:-$source_dir/build-bench}"
jobs="${JOBS:-2}"

cmake -S "$source_dir" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DXBC_BUILD_TESTS=OFF >/dev/null
cmake --build "$build_dir" --target xbc-bench -j "$jobs"

exec "$build_dir/bench/xbc-bench" --benchmark_repetitions=5 "$@"
