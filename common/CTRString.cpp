#include "common/CTRString.h"

#include <cstdio>

CTRString& CTRString::Format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    FormatV(fmt, args);
    va_end(args);
    return *this;
}

CTRString& CTRString::FormatV(const char* fmt, va_list args)
{
    clear();
    return AppendFormatV(fmt, args);
}

CTRString& CTRString::AppendFormat(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    AppendFormatV(fmt, args);
    va_end(args);
    return *this;
}

CTRString& CTRString::AppendFormatV(const char* fmt, va_list args)
{
    if (fmt == nullptr)
        return *this;
    va_list measure;
    va_copy(measure, args);
    int needed = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (needed <= 0)
        return *this;
    size_t oldSize = size();
    resize(oldSize + static_cast<size_t>(needed));
    // std::string keeps a terminator slot behind size(), so needed + 1 fits.
    vsnprintf(data() + oldSize, static_cast<size_t>(needed) + 1, fmt, args);
    return *this;
}
