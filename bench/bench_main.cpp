// The benchmark program's entry point and its trace object.
#include <benchmark/benchmark.h>

#include "trace/CDebug.h"

CDebug Debug;

BENCHMARK_MAIN();
