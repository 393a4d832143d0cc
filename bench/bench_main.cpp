// The benchmark program's own trace object (tracing off: the library's
// traces cost nothing here) and the benchmark entry point.
#include "trace/CDebug.h"

#include <benchmark/benchmark.h>

CDebug Debug;

BENCHMARK_MAIN();
