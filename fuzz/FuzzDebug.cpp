// The trace object every program defines; tracing stays off in the fuzzers.
#include "trace/CDebug.h"

CDebug Debug;
