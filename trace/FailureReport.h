// Failures an administrator must hear whatever the trace level: a module
// that cannot be loaded, a configuration that is refused, a registry that
// cannot be saved, a scan that cannot run.  Each is written to the trace as
// an error line (when tracing is on) and to the system log, so that it
// reaches the journal also with tracing off.
#pragma once

#include "trace/SysLogTraces.h"

/// Writes the entry `format` to the trace at level 1 and the same text
/// (leading and trailing newlines dropped, cut at 1023 characters) to the
/// system log with `priority`, through the process's syslog connection.
void ReportFailure(SysLogTraces::SysLogLevel priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
