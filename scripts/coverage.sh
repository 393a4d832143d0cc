#!/usr/bin/env bash
# Line and branch coverage of the parsers (gcc --coverage, read with gcov).
#   scripts/coverage.sh
# Builds build-cov/, runs the unit tests of the library's folders and the
# replay of the fuzz corpora, and prints a table: file, lines executed,
# branches taken at least once (gcc counts the edges of calls that may
# throw as branches, so that figure is lower than what the code's own
# conditions alone would give).  The daemon's end-to-end tests are left out
# (they exercise the daemon, not the parsers); CProcess's own tests run.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build-cov
scripts/deps.sh
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTARVD_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -O0" -DCMAKE_C_FLAGS="--coverage -O0" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DCMAKE_MODULE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j "${TARVD_JOBS:-$(nproc)}" --target test_common test_trace test_registry test_hwinfo \
  test_perfmon test_netif test_daemon test_fuzz
find "$dir" -name '*.gcda' -delete

for t in test_common test_trace test_registry test_hwinfo test_perfmon test_netif test_daemon test_fuzz; do
  "$dir/tests/$t" --gtest_filter='-Kopd*:ModulesEndToEnd*' >"$dir/$t.log" 2>&1 ||
    echo "coverage: $t failed (see $dir/$t.log; figures are still printed)" >&2
done

files=(
  common/CDataStream.cpp
  trace/CIniFile.cpp trace/CDebugTraceConfigFile.cpp trace/CTraceReader.cpp
  registry/CRegistryNode.cpp registry/CRegistry.cpp
  hwinfo/CSMBios.cpp hwinfo/CPciSlotMap.cpp hwinfo/CPciConfigList.cpp hwinfo/CSystemDevices.cpp
  perfmon/ProcParse.cpp perfmon/CPerfMon.cpp perfmon/CNetworkInterfaceTable.cpp
  netif/netlink_parse.cpp netif/netif_state.cpp
  daemon/CProcess.cpp
)
printf '%-36s %18s %24s\n' file lines "branches taken"
for f in "${files[@]}"; do
  name=${f##*/}
  obj=$(find "$dir/CMakeFiles" -path "*/tarvd_*.dir/*" -name "$name.gcda" | head -1)
  if [[ -z $obj ]]; then
    printf '%-36s %18s\n' "$f" "not run"
    continue
  fi
  out=$(cd "$(dirname "$obj")" && gcov -b -n -o . "$name.gcda" 2>/dev/null)
  # gcov names the source as the compiler saw it: absolute, or relative to
  # the build folder where the compiler cache rewrites paths (base_dir).
  block=$(awk -v want="/$f'" '$0 ~ /^File / { keep = index($0, want) > 0 } keep' <<<"$out")
  lines=$(sed -n "s/^Lines executed:\([0-9.]*%\) of \([0-9]*\)/\1 of \2/p" <<<"$block" | head -1)
  taken=$(sed -n "s/^Taken at least once:\([0-9.]*%\) of \([0-9]*\)/\1 of \2/p" <<<"$block" | head -1)
  printf '%-36s %18s %24s\n' "$f" "${lines:-?}" "${taken:-?}"
done
