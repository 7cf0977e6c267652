#!/usr/bin/env bash
# Builds the fuzz harnesses with clang and runs each for a bounded time on its kept corpus:
#   run_fuzzers.sh BUILD_DIR [SECONDS_EACH] [HARNESS...]
# Fails on the first crash, hang, leak or sanitizer report; the input that did it is left in
# BUILD_DIR/fuzz-artifacts/<name>/. New inputs found go to a scratch corpus, not the repository.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$1
seconds=${2:-50}
shift $(( $# >= 2 ? 2 : $# ))
names=("$@")
if (( ${#names[@]} == 0 )); then
  for f in "$here"/*_fuzz.cpp; do n=$(basename "$f" _fuzz.cpp); names+=("$n"); done
fi
targets=()
for n in "${names[@]}"; do targets+=("fuzz_$n"); done

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 -DKESTOR_FUZZ=ON -DKESTOR_BUILD_TESTS=OFF \
  -DKESTOR_BUILD_BENCH=OFF -DKESTOR_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

# The instance block is left in place by design (tests/lsan.supp).
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp"
export UBSAN_OPTIONS="print_stacktrace=1"
total=0
for n in "${names[@]}"; do
  corpus="$build/fuzz-corpus/$n" artifacts="$build/fuzz-artifacts/$n"
  mkdir -p "$corpus" "$artifacts"
  echo "== fuzz_$n for ${seconds}s"
  log="$build/fuzz-artifacts/$n.log"
  status=0
  "$build/tests/fuzz/fuzz_$n" "$corpus" "$here/corpus/$n" -max_total_time="$seconds" -timeout=25 \
    -rss_limit_mb=3072 -max_len=4096 -print_final_stats=1 -artifact_prefix="$artifacts/" \
    >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  echo "   executions: ${runs:-?}, status $status"
  if (( status != 0 )); then
    grep -v "^\[KESTOR INFO\]" "$log" | tail -60
    echo "fuzz_$n failed; reproducer in $artifacts"
    exit 1
  fi
  total=$(( total + ${runs:-0} ))
done
echo "fuzzing: ${#names[@]} harnesses clean, $total executions"
