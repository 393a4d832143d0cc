#!/usr/bin/env bash
# Installs the Debian packages needed to build, test and benchmark the agent
# (only those that are missing).  Runs non-interactively.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  gzip util-linux procps iproute2
  lintian  # the package test checks the .deb with it
  libmicrohttpd-dev  # the metrics module's HTTP server
)
# Optional extras: benchmarks compare against these, fuzzing needs clang.
if [[ "${TARVD_WITH_BENCH_REFS:-0}" == 1 ]]; then
  packages+=(libspdlog-dev libglib2.0-dev pciutils)
fi
# The metrics module's end-to-end test runs a real Prometheus server (and
# checks the page with its promtool); the benchmark compares with a node
# exporter's scrape.
if [[ "${TARVD_WITH_PROMETHEUS:-0}" == 1 ]]; then
  packages+=(prometheus)
fi
if [[ "${TARVD_WITH_BENCH_REFS:-0}" == 1 ]]; then
  packages+=(prometheus-node-exporter)
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
  if ! command -v sudo >/dev/null; then
    echo "$0: missing packages (${missing[*]}) and not root; install them or run as root" >&2
    exit 1
  fi
  sudo_cmd=(sudo -n env DEBIAN_FRONTEND=noninteractive)
fi
export DEBIAN_FRONTEND=noninteractive
# Wait for a package manager that runs at the same time (e.g. unattended
# upgrades on a fresh machine) instead of failing at once; retry downloads.
apt_opts=(-q -o DPkg::Lock::Timeout=600 -o Acquire::Retries=3)
"${sudo_cmd[@]}" apt-get "${apt_opts[@]}" update </dev/null
"${sudo_cmd[@]}" apt-get "${apt_opts[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null
