#!/usr/bin/env bash
# Builds the project and runs every test. With --sanitize the build goes to build/asan with
# AddressSanitizer and UndefinedBehaviorSanitizer. Warnings are errors in both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

mode=release
[ "${1:-}" = "--sanitize" ] && mode=asan
dir=build/$mode
jobs=$(nproc)

args=(-G Ninja -DSRTE_WERROR=ON)
if [ $mode = asan ]; then
  # The benchmark programs time a release build; under the sanitizers they would only cost
  # build time. srte-scale's correctness runs are kept.
  args+=(-DCMAKE_BUILD_TYPE=Debug -DSRTE_SANITIZE=ON -DSRTE_BUILD_BENCH=OFF)
else
  args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi

cmake -S . -B "$dir" "${args[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600
