// The trace's own syslog lines: the few errors (a log file that cannot be
// opened or rewound) that have nowhere else to go.
#include "trace/CDebugInternal.h"

#include <cstdio>
#include <syslog.h>

namespace tracedetail {

namespace {
void DefaultSysLog(int priority, const char* text) { syslog(priority, "%s", text); }
} // namespace

void CDebugSysLog::SetFunction(CDebug::SysLogFunction fn) { m_Function = fn; }

void CDebugSysLog::Write(int priority, const char* fmt, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    (m_Function ? m_Function : DefaultSysLog)(priority, text);
}

} // namespace tracedetail
