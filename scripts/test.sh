#!/usr/bin/env bash
# Builds the project and runs every test. Warnings are errors in both builds.
#
#   scripts/test.sh                  release build (gcc) in build/release
#   scripts/test.sh --sanitize       AddressSanitizer and UndefinedBehaviorSanitizer (clang) in
#                                    build/asan; the same tree holds the libFuzzer harnesses
#   scripts/test.sh --sanitize --configure-only
#                                    configures build/asan and stops (scripts/fuzz.sh uses it)
#
# The sanitizer tree is built by clang with the fuzzer's coverage instrumentation, so that
# scripts/fuzz.sh links its harnesses against the objects the sanitizer tests already built
# instead of compiling the libraries a third time; and a second compiler's warnings, as errors,
# over all the code.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

mode=release
configureOnly=0
for a in "$@"; do
  case $a in
  --sanitize) mode=asan ;;
  --configure-only) configureOnly=1 ;;
  *)
    echo "scripts/test.sh: unknown option '$a' (known: --sanitize, --configure-only)" >&2
    exit 2
    ;;
  esac
done
dir=build/$mode
jobs=$(nproc)

args=(-G Ninja -DSRTE_WERROR=ON)
if [ $mode = asan ]; then
  # -O1: the sanitizers' checks stay exact and the fuzzers run at useful speed; assertions on.
  # The benchmark programs time a release build; under the sanitizers they would only cost
  # build time. srte-scale's correctness runs are kept.
  export CXX=clang++
  args+=(-DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-g -O1" -DSRTE_FUZZ=ON
    -DSRTE_BUILD_BENCH=OFF)
else
  args+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi

# A sanitizer tree configured before it moved to clang is made afresh: CMake keeps the
# compiler a tree was first configured with.
if [ $mode = asan ] && [ -f "$dir/CMakeCache.txt" ] &&
  ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang' "$dir/CMakeCache.txt"; then
  echo "scripts/test.sh: $dir was configured with another compiler; configuring it afresh"
  rm -rf "$dir"
fi
cmake -S . -B "$dir" "${args[@]}" >/dev/null
[ $configureOnly = 1 ] && exit 0
cmake --build "$dir" -j "$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600
