#include "trace/SysLogTraces.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace {

constexpr const char* kFormatErrorText = "ERROR: cann't format message";

std::atomic<SysLogTraces*> g_Instance{nullptr};
std::mutex g_InstanceMutex;
std::atomic<SysLogTraces::Sink> g_Sink{nullptr};

} // namespace

SysLogTraces::SysLogTraces() { openlog(program_invocation_short_name, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1); }

SysLogTraces::~SysLogTraces() { closelog(); }

SysLogTraces& SysLogTraces::getConnection()
{
    SysLogTraces* inst = g_Instance.load(std::memory_order_acquire);
    if (!inst) {
        std::lock_guard<std::mutex> lock(g_InstanceMutex);
        inst = g_Instance.load(std::memory_order_relaxed);
        if (!inst) {
            // Kept for the life of the process: messages may be logged from
            // static destructors of other objects.
            inst = new SysLogTraces();
            g_Instance.store(inst, std::memory_order_release);
        }
    }
    return *inst;
}

const char* SysLogTraces::getProcName() const { return program_invocation_short_name; }

void SysLogTraces::SetSink(Sink sink) { g_Sink.store(sink); }

void SysLogTraces::logMessage(const char* text, SysLogLevel level) const volatile
{
    if (!text)
        return;
    if (Sink sink = g_Sink.load()) {
        sink(static_cast<int>(level), text);
        return;
    }
    // The text is the format on purpose (callers pass finished text without '%').
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    syslog(static_cast<int>(level), text);
#pragma GCC diagnostic pop
}

bool SysLogTraces::FormatMessage(char* buffer, size_t size, const char* format, va_list args)
{
    if (!buffer || size == 0)
        return false;
    if (!format) {
        snprintf(buffer, size, "%s", kFormatErrorText);
        return false;
    }
    const char* p = format;
    while (*p == '\n')
        ++p;
    if (!*p)
        p = format;
    if (vsnprintf(buffer, size, p, args) < 0) {
        snprintf(buffer, size, "%s", kFormatErrorText);
        return false;
    }
    return true;
}

void SysLogTraces::logMessageVaList(const char* format, va_list args) const volatile
{
    char buffer[kMessageBufferSize];
    FormatMessage(buffer, sizeof(buffer), format, args);
    logMessage(buffer, SL_INFO);
}
