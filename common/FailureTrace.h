// The trace of failures in the shared types.  The common layer sits below
// the trace facility and cannot write entries itself: the trace facility
// installs its writer here when the library is loaded, and a failure text
// is written as an error entry (level 1).
#pragma once

namespace tarvd {

/// Writes one failure text (without the leading newline) as an entry.
using FailureTraceFunction = void (*)(const char* text);

/// Installs the writer (null: failures are not traced).
void SetFailureTrace(FailureTraceFunction fn);
/// Writes `text` through the installed writer, if any.
void TraceFailure(const char* text);

} // namespace tarvd
