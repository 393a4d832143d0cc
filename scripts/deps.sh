#!/usr/bin/env bash
# Installs the Debian packages needed to build, test and benchmark the agent
# (only those that are missing).  Runs non-interactively.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  gzip util-linux procps
)
# Optional extras: benchmarks compare against these, fuzzing needs clang.
if [[ "${TARVD_WITH_BENCH_REFS:-0}" == 1 ]]; then
  packages+=(libspdlog-dev libglib2.0-dev pciutils)
fi
if [[ "${TARVD_WITH_FUZZ:-0}" == 1 ]]; then
  packages+=(clang libclang-rt-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
(( ${#missing[@]} == 0 )) && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q </dev/null
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
