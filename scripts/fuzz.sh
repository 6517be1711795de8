#!/usr/bin/env bash
# Builds the fuzz harnesses of fuzz/ with clang and libFuzzer in the sanitizer tree build/asan
# (scripts/test.sh --sanitize; after that run only the harnesses link) and runs each for
# SECONDS (default 60), as many at once as there are cores. Fails when any harness crashes,
# leaks, hangs or trips a sanitizer; the input that did it is copied to
# fuzz/regressions/<Name>/, where the replay tests of the normal builds pick it up.
#
#   scripts/fuzz.sh [SECONDS] [Name...]     e.g. scripts/fuzz.sh 600 ValueText
#
# Each harness grows its own working corpus in build/asan/corpus/<Name>/ from the seeds in
# fuzz/corpus/<Name>/, so a later run goes on from where the last one stopped.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

seconds=${1:-60}
shift || true
dir=build/asan
jobs=$(nproc)

scripts/test.sh --sanitize --configure-only
cmake --build "$dir" -j "$jobs" --target srte-fuzzers

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for f in fuzz/*Fuzz.cpp; do
    n=$(basename "$f" Fuzz.cpp)
    [ -x "$dir/fuzz/${n}Fuzz" ] && names+=("$n")
  done
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Runs one harness; its log goes to $dir/logs/<Name>.log.
run() {
  local n=$1
  local corpus=$dir/corpus/$n artifacts=$dir/artifacts/$n/ log=$dir/logs/$n.log
  rm -rf "$artifacts"
  mkdir -p "$corpus" "$artifacts" "$dir/logs"
  local dict=()
  [ -f "fuzz/$n.dict" ] && dict=(-dict="fuzz/$n.dict")
  if "$dir/fuzz/${n}Fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts" "${dict[@]}" "$corpus" "fuzz/corpus/$n" \
    >"$log" 2>&1; then
    echo "$n: $(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}') executions," \
      "no finding"
    return 0
  fi
  mkdir -p "fuzz/regressions/$n"
  cp "$artifacts"* "fuzz/regressions/$n/" 2>/dev/null || true
  echo "$n: FAILED (log $log; input kept in fuzz/regressions/$n/)"
  grep -m5 -E 'ERROR|fuzz property broken|SUMMARY' "$log" || tail -20 "$log"
  return 1
}

failed=0
pids=()
for n in "${names[@]}"; do
  if [ ${#pids[@]} -ge "$jobs" ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
  fi
  run "$n" &
  pids+=($!)
done
for p in "${pids[@]}"; do
  wait "$p" || failed=1
done
if [ $failed -ne 0 ]; then
  echo "fuzzing found problems"
  exit 1
fi
echo "${#names[@]} harnesses fuzzed for ${seconds}s each, no finding"
