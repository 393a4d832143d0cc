#include "common/FailureTrace.h"

#include <atomic>

namespace {
std::atomic<tarvd::FailureTraceFunction> g_FailureTrace{nullptr};
} // namespace

void tarvd::SetFailureTrace(FailureTraceFunction fn) { g_FailureTrace.store(fn); }

void tarvd::TraceFailure(const char* text)
{
    if (FailureTraceFunction fn = g_FailureTrace.load())
        fn(text);
}
