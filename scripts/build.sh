#!/usr/bin/env bash
# Configures and builds one build tree.
#   scripts/build.sh [release|asan|tsan]   (default: release)
# Trees: build/ (release), build-asan/ (ASan + UBSan), build-tsan/ (TSan).
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-release}
case "$mode" in
  release) dir=build; flags=() ;;
  asan)    dir=build-asan; flags=(-DTARVD_SANITIZE=ON -DTARVD_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug) ;;
  tsan)    dir=build-tsan; flags=(-DTARVD_TSAN=ON -DTARVD_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  *) echo "usage: $0 [release|asan|tsan]" >&2; exit 2 ;;
esac

jobs=${TARVD_JOBS:-$(nproc)}
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"
