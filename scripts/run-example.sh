#!/usr/bin/env bash
# Installs what the build needs (scripts/deps.sh), builds srte-sim (build/release) and runs it
# on a scenario: the first example unless another file is given. Extra options go to srte-sim
# (--json, --dot, --trace LEVEL, --flicker; see srte-sim --help).
#   scripts/run-example.sh                                  # examples/01-two-sources.json
#   scripts/run-example.sh examples/02-top-label-failure.json --trace 6
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scenario=examples/01-two-sources.json
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
  scenario=$1
  shift
fi
dir=build/release
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSRTE_WERROR=ON >/dev/null
fi
if ! log=$(cmake --build "$dir" --target srte-sim -j "$(nproc)" 2>&1); then
  printf '%s\n' "$log" >&2
  exit 1
fi
exec "$dir/tools/srte-sim/srte-sim" "$@" "$scenario"
