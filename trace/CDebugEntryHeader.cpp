// Fast forms of the trace entry header's time text and header line.
#include "trace/CDebugEntryHeaderInternal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace traceheader {

void CTimeTextCache::Format(const struct timeval& tv, char (&out)[kTimeTextSize])
{
    if (!m_Valid || tv.tv_sec != m_Second) {
        struct tm tmv;
        size_t n = 0;
        if (localtime_r(&tv.tv_sec, &tmv) != nullptr)
            n = strftime(m_Text, sizeof(m_Text), "%F %H:%M:%S", &tmv);
        if (n == 0) {
            m_Valid = false;
            snprintf(out, sizeof(out), "%s", kUnknownTime);
            return;
        }
        m_Valid = true;
        m_Second = tv.tv_sec;
        m_Length = n;
    }
    // m_Length <= 21, so the text, '.', three digits and NUL fit in 28.
    long ms = static_cast<long>(tv.tv_usec / 1000);
    if (ms < 0 || ms > 999) {
        // Not a normalised timeval: let snprintf print what it would.
        snprintf(out, sizeof(out), "%s.%03d", m_Text, static_cast<int>(ms));
        return;
    }
    memcpy(out, m_Text, m_Length);
    char* p = out + m_Length;
    *p++ = '.';
    *p++ = static_cast<char>('0' + ms / 100);
    *p++ = static_cast<char>('0' + ms / 10 % 10);
    *p++ = static_cast<char>('0' + ms % 10);
    *p = '\0';
}

int FormatEntryHeader(char* buffer, size_t size, const char* timeText, unsigned thread, bool withMemory,
                      uint64_t kilobytes, const char* name)
{
    // Unusually long parts take the general path.
    constexpr size_t kTimeLimit = 64;
    constexpr size_t kNameLimit = 128;
    const size_t timeLength = strnlen(timeText, kTimeLimit + 1);
    const size_t nameLength = strnlen(name, kNameLimit + 1);
    if (timeLength > kTimeLimit || nameLength > kNameLimit) {
        if (!withMemory)
            return snprintf(buffer, size, "%s [%08X] %-13s ", timeText, thread, name);
        return snprintf(buffer, size, "%s [%08X] %8zu %s !%-13s ", timeText, thread,
                        static_cast<size_t>(kilobytes), "KB", name);
    }

    // time(64) + " [" + 8 + "] " + 20 digits + " KB !" + name(128) + 13 pad + ' '
    char text[kTimeLimit + 4 + 8 + 20 + 5 + kNameLimit + 2];
    char* p = text;
    memcpy(p, timeText, timeLength);
    p += timeLength;
    *p++ = ' ';
    *p++ = '[';
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (int shift = 28; shift >= 0; shift -= 4)
        *p++ = kHex[(thread >> shift) & 0xFu];
    *p++ = ']';
    *p++ = ' ';
    if (withMemory) {
        char digits[20];
        int count = 0;
        uint64_t v = kilobytes;
        do {
            digits[count++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0);
        for (int i = count; i < 8; ++i)
            *p++ = ' ';
        while (count > 0)
            *p++ = digits[--count];
        memcpy(p, " KB !", 5);
        p += 5;
    }
    memcpy(p, name, nameLength);
    p += nameLength;
    for (size_t i = nameLength; i < 13; ++i)
        *p++ = ' ';
    *p++ = ' ';

    const size_t length = static_cast<size_t>(p - text);
    if (size > 0) {
        size_t copied = std::min(length, size - 1);
        memcpy(buffer, text, copied);
        buffer[copied] = '\0';
    }
    return static_cast<int>(length);
}

} // namespace traceheader
