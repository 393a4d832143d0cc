#include "perfmon/ProcParse.h"

#include <algorithm>
#include <cerrno>

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
    bool cut = false;
    if (int err = tarvd::ReadFileBounded(path.c_str(), kMaxTextFile, m_Text, &cut)) {
        m_Text.clear();
        errno = err;
        return false;
    }
    if (cut) {
        // A line cut by the cap would read as a shorter line of its own.
        const size_t lastNewline = m_Text.rfind('\n');
        m_Text.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
    }
    return true;
}

bool CProcLineReader::Next(std::string& line)
{
    line.clear();
    if (m_Pos >= m_Text.size())
        return false;
    size_t end = m_Text.find('\n', m_Pos);
    if (end == std::string::npos)
        end = m_Text.size();  // a last line without newline
    line.assign(m_Text, m_Pos, std::min(end - m_Pos, kMaxLineLength));
    m_Pos = end + 1;
    return true;
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

bool ReadNetDevInterfaces(const std::string& path, size_t maxCount, std::vector<NetDevLine>& out)
{
    out.clear();
    CProcLineReader reader;
    if (!reader.Open(path))
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
