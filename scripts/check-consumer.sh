#!/usr/bin/env bash
# Installs a build tree into a scratch prefix and builds and runs a tiny agent against it.
# Usage: scripts/check-consumer.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "$1")
prefix="$build/consumer-check/install"
rm -rf "$build/consumer-check"
cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S tests/consumer -B "$build/consumer-check/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build/consumer-check/build" >/dev/null
"$build/consumer-check/build/consumer"
