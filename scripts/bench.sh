#!/usr/bin/env bash
# Runs the benchmark suite against its references and prints the ratios.
#   scripts/bench.sh [extra tarvd_bench arguments, e.g. --benchmark_filter=Trace]
# Installs the reference libraries (spdlog, glib, pciutils), builds the
# Release tree build-bench/, runs build-bench/bench/tarvd_bench with 3 repetitions and
# writes the raw results to build-bench/bench/results.json; then prints one line
# per case: project time / reference time (from the medians).
set -euo pipefail
cd "$(dirname "$0")/.."

TARVD_WITH_BENCH_REFS=1 scripts/deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVD_BUILD_BENCH=ON >/dev/null
cmake --build build-bench -j "${TARVD_JOBS:-$(nproc)}" --target tarvd_bench

out=build-bench/bench/results.json
build-bench/bench/tarvd_bench \
  --benchmark_repetitions="${TARVD_BENCH_REPETITIONS:-3}" \
  --benchmark_report_aggregates_only=true \
  --benchmark_min_time="${TARVD_BENCH_MIN_TIME:-0.3}" \
  --benchmark_out="$out" --benchmark_out_format=json \
  "$@"
echo
python3 scripts/bench_table.py "$out"
