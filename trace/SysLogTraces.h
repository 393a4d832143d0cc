// SysLogTraces: the process's connection to the system log.
#pragma once

#include <cstdarg>
#include <cstddef>

class SysLogTraces {
public:
    /// syslog priorities.
    enum SysLogLevel {
        SL_EMERG = 0,
        SL_ALERT = 1,
        SL_CRIT = 2,
        SL_ERR = 3,
        SL_WARNING = 4,
        SL_NOTICE = 5,
        SL_INFO = 6,
        SL_DEBUG = 7
    };

    /// The one instance of the process, created (openlog under the
    /// process's short name, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1) on
    /// first use under a global mutex and kept for the life of the process.
    static SysLogTraces& getConnection();

    /// The process's short invocation name.
    const char* getProcName() const;

    /// Logs `text` with `level`.  The text is passed to syslog as its
    /// format: a '%' conversion in it is expanded again, so callers must not
    /// pass text with '%' in it.  A null text logs nothing.
    void logMessage(const char* text, SysLogLevel level) const volatile;
    /// Skips leading newlines of `format` (a format of newlines only is
    /// used as it is), formats into 1024 bytes (cut to 1023 characters) and
    /// logs the result at SL_INFO; "ERROR: cann't format message" when the
    /// formatting fails.
    void logMessageVaList(const char* format, va_list args) const volatile __attribute__((format(printf, 2, 0)));

    /// The formatting step of logMessageVaList, on its own.
    /// @return false when vsnprintf failed (`buffer` then holds the error text).
    static bool FormatMessage(char* buffer, size_t size, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));

    /// Where messages go instead of syslog(3) (tests); null restores syslog.
    /// The sink gets the priority and the text that syslog would get as format.
    using Sink = void (*)(int priority, const char* text);
    static void SetSink(Sink sink);

    ~SysLogTraces();
    SysLogTraces(const SysLogTraces&) = delete;
    SysLogTraces& operator=(const SysLogTraces&) = delete;

    /// Size of the formatting buffer of logMessageVaList.
    static constexpr size_t kMessageBufferSize = 1024;

private:
    SysLogTraces();
};
