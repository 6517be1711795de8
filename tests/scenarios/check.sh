#!/usr/bin/env bash
# Runs srte-sim on one scenario from the repository's root and compares what it prints
# (standard output and standard error, then its exit status) with the expected file.
#   check.sh SRTE_SIM SCENARIO EXPECTED [srte-sim options...]
# With SRTE_UPDATE_EXPECTED=1 in the environment it writes the expected file instead: do that
# only when behaviour changed on purpose, and read the new file before committing it.
set -uo pipefail
sim=$1
scenario=$2
expected=$3
shift 3
cd "$(dirname "$0")/../.."
actual=$("$sim" "$@" "$scenario" 2>&1)
status=$?
actual+=$'\n'"exit status: $status"
if [ "${SRTE_UPDATE_EXPECTED:-0}" = 1 ]; then
  printf '%s\n' "$actual" >"$expected"
  echo "wrote $expected"
  exit 0
fi
if ! diff -u "$expected" <(printf '%s\n' "$actual"); then
  echo "srte-sim output differs from $expected (SRTE_UPDATE_EXPECTED=1 rewrites it)" >&2
  exit 1
fi
