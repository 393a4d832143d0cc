#include "trace/FailureReport.h"

#include <cstdarg>
#include <cstring>
#include <string>

#include "trace/CDebug.h"

void ReportFailure(SysLogTraces::SysLogLevel priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    if (Debug.IsEnabled()) {
        va_list copy;
        va_copy(copy, args);
        Debug.PrintV(1, format, copy);
        va_end(copy);
    }
    char text[SysLogTraces::kMessageBufferSize];
    SysLogTraces::FormatMessage(text, sizeof text, format, args);
    va_end(args);
    size_t len = strlen(text);
    while (len > 0 && text[len - 1] == '\n')
        --len;
    // The system log takes the text as a format: a '%' of a path or a
    // module's message is doubled so that it is printed, not expanded.
    std::string line;
    line.reserve(len + 8);
    for (size_t i = 0; i < len; ++i) {
        if (text[i] == '%')
            line += '%';
        line += text[i];
    }
    SysLogTraces::getConnection().logMessage(line.c_str(), priority);
}
