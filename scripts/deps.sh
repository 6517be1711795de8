#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, but only those that
# are missing; prints nothing when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build python3 pkg-config
  libboost-dev libgtest-dev libgmock-dev googletest libbenchmark-dev nlohmann-json3-dev
  clang libclang-rt-14-dev clang-format
  # The schema test of the state document.
  python3-jsonschema
  # The BGP interop test: gobgpd as the peer, its .proto files, and what turns them into Python.
  gobgpd golang-github-osrg-gobgp-dev protobuf-compiler protobuf-compiler-grpc libprotobuf-dev
  python3-grpcio python3-protobuf
  # The service tests: promtool checks the metrics, a prometheus server scrapes the agent, and
  # systemd-analyze verifies the unit file.
  prometheus systemd
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
