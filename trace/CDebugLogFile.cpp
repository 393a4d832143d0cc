// The log file output.
#include "trace/CDebugInternal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <syslog.h>

namespace tracedetail {

// fopen "w+", except that a symbolic link planted at the path (the trace
// directory may be writable by others) is refused instead of followed.
bool CDebugLogFile::Open(const char* filePath)
{
    UniqueFd fd(open(filePath, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
    m_File.Reset();
    if (fd) {
        m_File.Reset(fdopen(fd.Get(), "w+"));
        if (m_File)
            fd.Release();
    }
    m_ByteCount = 0;
    m_WrapCycle = 0;
    m_WrapOffset = 0;
    m_InitEnd = 0;
    return m_File.Valid();
}

void CDebugLogFile::Write(char* entry, size_t len, size_t headerLength, CDebugSysLog& sysLog)
{
    FILE* f = m_File.Get();
    // The log file is a text file: an entry ends at its first NUL byte (a
    // message formatted with "%c" and 0 ends there), as a C string does.
    len = strnlen(entry, len);
    size_t written = fwrite(entry, 1, len, f);
    fflush(f);
    m_ByteCount += static_cast<unsigned>(written);
    if (m_ByteCount <= maxSize)
        return;

    // Wrap: the text before the wrap offset (header and start-up phase) is
    // kept; older text behind the write position stays until overwritten.
    if (fseek(f, m_WrapOffset, SEEK_SET) != 0) {
        sysLog.Write(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", path, errno);
        rewind(f);
    }
    ++m_WrapCycle;
    m_ByteCount = m_InitEnd;
    // The header of the entry just written is still in the buffer.
    size_t h = headerLength;
    int n = snprintf(entry + h, kMessageSize, "------ WRAP ----- Cycle=%d, CntInitEnd=%u, CurrentByteCnt=%u (MaxCnt=%u)\n",
                     static_cast<int>(m_WrapCycle), m_InitEnd, m_ByteCount, maxSize);
    size_t wrapLen = strnlen(entry, h + (n > 0 ? std::min(static_cast<size_t>(n), kMessageSize - 1) : 0));
    written = fwrite(entry, 1, wrapLen, f);
    fflush(f);
    m_ByteCount += static_cast<unsigned>(written);
}

void CDebugLogFile::MarkInitEnd()
{
    if (!m_File)
        return;
    long pos = ftell(m_File.Get());
    if (pos >= 0) {
        m_WrapOffset = pos;
        m_InitEnd = static_cast<unsigned>(pos);
    }
}

} // namespace tracedetail

using tracedetail::EndWithNewline;

void CDebug::Impl::TraceToLogFile(const char* format, va_list args, const char* name)
{
    if (!logFile.IsOpen() || !format)
        return;
    int full = 0;
    size_t len = EndWithNewline(entry, FormatEntry(entry, format, args, name, &full));
    logFile.Write(entry, len, lastHeaderLength, sysLog);
}
