#include "perfmon/ProcParse.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "common/FileIO.h"
#include "common/NumberParse.h"

#include "perfmon/PerfMonPaths.h"

namespace perfmon {

std::string JoinPath(const std::string& root, const char* relative)
{
    std::string path = root;
    if (path.empty() || path.back() != '/')
        path += '/';
    path += relative;
    return path;
}

bool CProcLineReader::Open(const std::string& path)
{
    m_Pos = 0;
    m_Text = std::string_view();
    bool cut = false;
    if (int err = tarvd::ReadFileBounded(path.c_str(), kMaxTextFile, m_Own, &cut)) {
        m_Own.clear();
        errno = err;
        return false;
    }
    if (cut) {
        // A line cut by the cap would read as a shorter line of its own.
        const size_t lastNewline = m_Own.rfind('\n');
        m_Own.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
    }
    m_Text = m_Own;
    return true;
}

bool CProcLineReader::Open(CKeptProcFile& file, const std::string& path)
{
    m_Pos = 0;
    m_Text = std::string_view();
    if (!file.Read(path))
        return false;
    m_Text = file.Text();
    return true;
}

bool CProcLineReader::Next(std::string& line)
{
    line.clear();
    if (m_Pos >= m_Text.size())
        return false;
    size_t end = m_Text.find('\n', m_Pos);
    if (end == std::string_view::npos)
        end = m_Text.size();  // a last line without newline
    line.assign(m_Text.substr(m_Pos, std::min(end - m_Pos, kMaxLineLength)));
    m_Pos = end + 1;
    return true;
}

bool CKeptProcFile::Reopen(const std::string& path)
{
    m_Path.clear();
    m_Fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!m_Fd)
        return false;
    struct statfs fs {};
    m_Keep = fstatfs(m_Fd.Get(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC;
    m_Path = path;
    m_Pid = static_cast<int>(getpid());
    return true;
}

// The text from offset 0 into the kept buffer, which grows (up to the cap
// and one byte more, to tell a longer file) when a read fills it.
bool CKeptProcFile::ReadFromStart()
{
    constexpr size_t kFirstSize = 16 * 1024;
    if (m_Buffer.size() < kFirstSize)
        m_Buffer.resize(kFirstSize);
    size_t used = 0;
    for (;;) {
        if (used == m_Buffer.size()) {
            if (used > kMaxTextFile)
                break;
            m_Buffer.resize(std::min(2 * used, kMaxTextFile + 1));
        }
        ssize_t n = pread(m_Fd.Get(), m_Buffer.data() + used, m_Buffer.size() - used, static_cast<off_t>(used));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        used += static_cast<size_t>(n);
    }
    if (used > kMaxTextFile) {
        // A line cut by the cap would read as a shorter line of its own.
        const size_t lastNewline = std::string_view(m_Buffer.data(), kMaxTextFile).rfind('\n');
        used = lastNewline == std::string_view::npos ? 0 : lastNewline + 1;
    }
    m_Length = used;
    return true;
}

bool CKeptProcFile::Read(const std::string& path)
{
    m_Length = 0;
    const bool fresh = !m_Fd || !m_Keep || path != m_Path || m_Pid != static_cast<int>(getpid());
    if (fresh && !Reopen(path))
        return false;
    if (ReadFromStart())
        return true;
    // A kept descriptor that no longer reads: once more through a new one.
    return !fresh && Reopen(path) && ReadFromStart();
}

bool ReadSmallFile(const std::string& path, std::string& out)
{
    return tarvd::ReadFileBounded(path.c_str(), kMaxSmallFile, out) == 0;
}

bool ParseU64(const char*& p, const char* end, uint64_t& value)
{
    const char* q = p;
    while (q < end && (*q == ' ' || *q == '\t'))
        ++q;
    if (!tarvd::ParseDigits(q, end, value))
        return false;
    p = q;
    return true;
}

int ParseU64List(std::string_view text, uint64_t* values, int maxCount)
{
    const char* p = text.data();
    const char* end = p + text.size();
    int count = 0;
    while (count < maxCount) {
        uint64_t v = 0;
        if (!ParseU64(p, end, v))
            break;
        values[count++] = v;
        // Numbers must be separated: "12abc" ends the list after 12.
        if (p < end && *p != ' ' && *p != '\t')
            break;
    }
    return count;
}

bool ParseKeyedU64(std::string_view line, std::string_view key, uint64_t& value)
{
    if (line.substr(0, key.size()) != key)
        return false;
    const char* p = line.data() + key.size();
    return ParseU64(p, line.data() + line.size(), value);
}

bool IsMonitoredInterfaceName(std::string_view name)
{
    for (const char* prefix : kInterfacePrefixes) {
        std::string_view pre(prefix);
        if (name.size() >= pre.size() && name.substr(0, pre.size()) == pre)
            return true;
    }
    return false;
}

bool SplitNetDevLine(std::string_view line, NetDevLine& out, bool monitoredOnly)
{
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return false;
    size_t colon = line.find(':', start);
    if (colon == std::string_view::npos)
        return false;
    std::string_view name = line.substr(start, colon - start);
    size_t last = name.find_last_not_of(" \t");
    name = last == std::string_view::npos ? std::string_view() : name.substr(0, last + 1);
    if (name.empty() || (monitoredOnly && !IsMonitoredInterfaceName(name)))
        return false;
    out.name.assign(name);
    out.counters.assign(line.substr(colon + 1));
    return true;
}

bool ReadNetDevInterfaces(const std::string& path, size_t maxCount, std::vector<NetDevLine>& out, CKeptProcFile* kept)
{
    out.clear();
    CProcLineReader reader;
    if (!(kept ? reader.Open(*kept, path) : reader.Open(path)))
        return false;
    std::string line;
    NetDevLine entry;
    while (out.size() < maxCount && reader.Next(line)) {
        if (SplitNetDevLine(line, entry))
            out.push_back(entry);
    }
    return true;
}

} // namespace perfmon
