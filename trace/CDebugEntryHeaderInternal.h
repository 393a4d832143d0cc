// The pieces of the trace entry header that run for every entry: the time
// text and the header line.  Kept apart so that tests can hold them against
// the plain strftime/snprintf forms they replace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/time.h>

namespace traceheader {

/// Size of a time text buffer ("%F %H:%M:%S" of up to 21 characters, '.',
/// three digits of milliseconds, NUL).
constexpr size_t kTimeTextSize = 28;
/// The text when the time cannot be converted.
constexpr const char* kUnknownTime = "yyyy-mm-dd hh:mm:ss.mmm";

/// Local time as "%F %H:%M:%S.mmm".  localtime_r and strftime run once per
/// second of time stamps; within that second only the milliseconds are
/// formatted.  The text is the same as from calling both every time.
/// Not thread-safe: the trace uses it under its lock.
class CTimeTextCache {
public:
    /// Writes the text for `tv` into `out` (always NUL-terminated);
    /// kUnknownTime when the time cannot be converted.
    void Format(const struct timeval& tv, char (&out)[kTimeTextSize]);

private:
    bool m_Valid = false;
    time_t m_Second = 0;
    size_t m_Length = 0;
    char m_Text[22] = {};
};

/// The entry header: "%s [%08X] %-13s " with time text, thread and name, or
/// with the memory column "%s [%08X] %8zu %s !%-13s " (the last %s being
/// "KB").  Writes what snprintf(buffer, size, ...) would write and returns
/// what it would return (the untruncated length).
int FormatEntryHeader(char* buffer, size_t size, const char* timeText, unsigned thread, bool withMemory,
                      uint64_t kilobytes, const char* name);

} // namespace traceheader
