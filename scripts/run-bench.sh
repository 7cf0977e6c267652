#!/usr/bin/env bash
# Builds and runs the benchmarks (with the Open3D comparisons), repeated so that medians can be
# read. Pass a regular expression to run only some programs: scripts/run-bench.sh 'vmap|pyramid'
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" --bench
"$root/scripts/build.sh" "$root/build-bench" -DKESTOR_BUILD_TESTS=OFF -DKESTOR_OPEN3D_BENCH=ON
filter=${1:-.}
for program in "$root"/build-bench/bench/bench_*; do
  [[ -x "$program" ]] || continue
  grep -qE "$filter" <<<"$(basename "$program")" || continue
  echo "== $(basename "$program")"
  OMP_NUM_THREADS=${OMP_NUM_THREADS:-$(nproc)} "$program" --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true
done
