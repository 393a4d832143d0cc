#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite with CTest.
#   scripts/test.sh            release build
#   scripts/test.sh --asan     the same suite under AddressSanitizer + UBSan
#   scripts/test.sh --tsan     the same suite under ThreadSanitizer
#   scripts/test.sh --all      release, then ASan + UBSan
# Extra arguments after "--" go to ctest (e.g. -- -R Registry).
set -euo pipefail
cd "$(dirname "$0")/.."

modes=()
ctest_args=()
while (( $# )); do
  case "$1" in
    --asan) modes+=(asan) ;;
    --tsan) modes+=(tsan) ;;
    --all) modes+=(release asan) ;;
    --) shift; ctest_args=("$@"); break ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
  shift
done
(( ${#modes[@]} )) || modes=(release)

# The metrics module's end-to-end test needs a Prometheus server.
TARVD_WITH_PROMETHEUS=1 scripts/deps.sh
for mode in "${modes[@]}"; do
  echo "=== $mode build ==="
  scripts/build.sh "$mode"
  case "$mode" in
    release) dir=build ;;
    asan) dir=build-asan ;;
    tsan) dir=build-tsan ;;
  esac
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
  export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
  echo "=== $mode tests ==="
  ctest --test-dir "$dir" --output-on-failure -j "${TARVD_JOBS:-$(nproc)}" "${ctest_args[@]}"
done
