#include "tools/common/LogStream.h"

#include "trace/CTraceReader.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr size_t kReadPiece = 64 * 1024;
constexpr size_t kTimeLength = CTraceReader::kTimeStampLength;

bool IsEntry(const std::string& l) { return CTraceReader::IsEntryLine(l.data(), l.size()); }
} // namespace

bool CLogStream::Fill(off_t pos)
{
    m_Buffer.resize(kReadPiece);
    ssize_t n;
    do
        n = pread(m_Fd.Get(), m_Buffer.data(), m_Buffer.size(), pos);
    while (n < 0 && errno == EINTR);
    m_BufferStart = pos;
    m_BufferLength = n > 0 ? static_cast<size_t>(n) : 0;
    return n > 0;
}

bool CLogStream::ReadLine(off_t& pos, off_t end, std::string& line)
{
    line.clear();
    while (pos < end) {
        if (pos < m_BufferStart || pos >= m_BufferStart + static_cast<off_t>(m_BufferLength)) {
            if (!Fill(pos))
                return false;
        }
        const size_t at = static_cast<size_t>(pos - m_BufferStart);
        const size_t avail = std::min(m_BufferLength - at, static_cast<size_t>(end - pos));
        const char* data = m_Buffer.data() + at;
        const void* nl = memchr(data, '\n', avail);
        const size_t take = nl ? static_cast<size_t>(static_cast<const char*>(nl) - data) : avail;
        if (line.size() < kMaxLineLength)
            line.append(data, std::min(take, kMaxLineLength - line.size()));
        pos += static_cast<off_t>(take);
        if (nl) {
            ++pos;
            return true;
        }
    }
    return false;  // no line feed before the end: not a whole line
}

std::string CLogStream::Open(const std::string& path)
{
    m_Fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat st {};
    if (!m_Fd || fstat(m_Fd.Get(), &st) != 0)
        return strerror(errno);
    if (!S_ISREG(st.st_mode))
        return "not a regular file";
    return FindSegments(st.st_size);
}

// One pass over the file: the probe, the wrap line, and the end of the
// newest part after it (the first line that is no entry line, the rest of
// an overwritten one, or one older than the line before it).
std::string CLogStream::FindSegments(off_t size)
{
    off_t pos = 0, wrapAt = -1, boundary = size, oldFrom = size;
    bool sawEntry = false;
    std::string line, newestTime;
    for (off_t start = 0; start < size; start = pos) {
        if (!ReadLine(pos, size, line)) {
            m_Complete = false;
            break;
        }
        if (start < kProbeLength && memchr(line.data(), '\0', line.size()) != nullptr)
            return "not a trace file (binary data)";
        sawEntry = sawEntry || IsEntry(line);
        if (!sawEntry && pos >= kProbeLength)
            return "not a trace file (no trace entry line at its start)";
        if (wrapAt < 0) {
            if (IsEntry(line) && line.find(CTraceReader::kLogWrapText) != std::string::npos) {
                wrapAt = start;
                newestTime = line.substr(0, kTimeLength);
            }
            continue;
        }
        if (!IsEntry(line) || line.compare(0, kTimeLength, newestTime) < 0) {
            boundary = start;
            oldFrom = IsEntry(line) ? start : pos;  // the rest of an overwritten line goes
            break;
        }
        newestTime = line.substr(0, kTimeLength);
    }
    if (!sawEntry)
        return "not a trace file (no trace entry line)";
    if (boundary < size) {  // the scan stopped early: is the last line whole?
        char last = '\n';
        m_Complete = pread(m_Fd.Get(), &last, 1, size - 1) == 1 && last == '\n';
    }
    if (wrapAt < 0)
        m_Segments = {{0, size}};
    else
        m_Segments = {{0, wrapAt}, {oldFrom, size}, {wrapAt, boundary}};
    m_Pos = m_Segments[0].from;
    return std::string();
}

bool CLogStream::Next(std::string& line)
{
    while (m_Segment < m_Segments.size()) {
        if (ReadLine(m_Pos, m_Segments[m_Segment].to, line)) {
            ++m_Count;
            return true;
        }
        if (++m_Segment < m_Segments.size())
            m_Pos = m_Segments[m_Segment].from;
    }
    return false;
}
