#!/usr/bin/env bash
# Builds the fuzz targets with clang (ASan + UBSan + libFuzzer) and runs each
# for the given number of seconds, starting from the seed corpus
# fuzz/corpus/<target>/ and the kept crash inputs fuzz/regressions/<target>/.
#   scripts/fuzz.sh [seconds-per-target] [target...]
# Environment: TARVD_FUZZ_JOBS  targets run at the same time (default 1)
#              TARVD_FUZZ_RUNS  stop a target after this many executions
#                               (the time is then only an upper bound)
#              TARVD_JOBS       build parallelism (default: nproc)
# Results: build-fuzz/fuzz-report.txt (also printed); new corpus entries in
# build-fuzz/corpus/<target>/, crash/leak/time-out inputs in
# build-fuzz/artifacts/<target>/.  Exit status 1 when any target failed.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
TARVD_WITH_FUZZ=1 scripts/deps.sh

dir=build-fuzz
cmake -S fuzz -B "$dir" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$dir" -j "${TARVD_JOBS:-$(nproc)}"

targets=("$@")
if (( ${#targets[@]} == 0 )); then
  for exe in "$dir"/fuzz_*; do
    [[ -x $exe && -f $exe ]] && targets+=("${exe##*/fuzz_}")
  done
fi

# A shorter allocation stack and a smaller quarantine than ASan's defaults:
# about a sixth more executions, and the reports still name the culprits.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:malloc_context_size=8:quarantine_size_mb=32}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

run_one() {
  local t=$1 corpus="$dir/corpus/$1" art="$dir/artifacts/$1" log="$dir/logs/$1.log"
  mkdir -p "$corpus" "$art" "$dir/logs"
  local seeds=()
  for s in fuzz/corpus/"$t" fuzz/regressions/"$t"; do
    [[ -d $s ]] && seeds+=("$s")
  done
  local rc=0 runs=() start
  start=$(date +%s)
  [[ -n ${TARVD_FUZZ_RUNS:-} ]] && runs=(-runs="$TARVD_FUZZ_RUNS")
  "$dir/fuzz_$t" "${runs[@]}" -max_len=4096 -timeout=10 -rss_limit_mb=2048 -max_total_time="$seconds" \
    -print_final_stats=1 -artifact_prefix="$art/" "$corpus" "${seeds[@]}" >"$log" 2>&1 || rc=$?
  local execs rate size crashes leaks timeouts
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  size=$(find "$corpus" -type f | wc -l)
  crashes=$(find "$art" -name 'crash-*' | wc -l)
  leaks=$(find "$art" -name 'leak-*' | wc -l)
  timeouts=$(find "$art" \( -name 'timeout-*' -o -name 'slow-unit-*' -o -name 'oom-*' \) | wc -l)
  local took=$(( $(date +%s) - start ))
  printf '%-14s rc=%-3s executions=%-11s exec/s=%-7s seconds=%-6s corpus=%-6s crashes=%s leaks=%s timeouts=%s\n' \
    "$t" "$rc" "${execs:-0}" "${rate:-0}" "$took" "$size" "$crashes" "$leaks" "$timeouts" >"$dir/logs/$t.result"
}

jobs=${TARVD_FUZZ_JOBS:-1}
for t in "${targets[@]}"; do
  while (( $(jobs -rp | wc -l) >= jobs )); do wait -n || true; done
  run_one "$t" &
done
wait

report="$dir/fuzz-report.txt"
{
  echo "fuzz run $(date -u '+%F %T') UTC, at most ${seconds}s${TARVD_FUZZ_RUNS:+ and ${TARVD_FUZZ_RUNS} executions} per target, ASan + UBSan"
  for t in "${targets[@]}"; do cat "$dir/logs/$t.result"; done
} | tee "$report"
if grep -qE 'rc=[1-9]|crashes=[1-9]|leaks=[1-9]|timeouts=[1-9]' "$report"; then
  echo "fuzz: failures found; inputs are in $dir/artifacts/" >&2
  exit 1
fi
