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
    // Formatted into a fresh string and swapped in, so that an argument
    // that points into this string (s.Format("%s!", s.c_str())) still reads
    // the old text.
    CTRString result;
    result.AppendFormatV(fmt, args);
    swap(result);
    return *this;
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
    const size_t oldSize = size();
    const size_t newSize = oldSize + static_cast<size_t>(needed);
    if (newSize <= capacity()) {
        // No reallocation: arguments pointing into the current text stay valid.
        resize(newSize);
        // std::string keeps a terminator slot behind size(), so needed + 1 fits.
        vsnprintf(data() + oldSize, static_cast<size_t>(needed) + 1, fmt, args);
        return *this;
    }
    // Growing moves the text.  Build the grown string beside the old one so
    // that arguments pointing into the old text are read before it is freed.
    std::string grown;
    grown.reserve(newSize);
    grown.append(*this);
    grown.resize(newSize);
    vsnprintf(grown.data() + oldSize, static_cast<size_t>(needed) + 1, fmt, args);
    swap(grown);
    return *this;
}
