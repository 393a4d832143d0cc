#include "trace/CTraceReader.h"

#include "common/FileIO.h"
#include "common/UniqueHandle.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char kBeginLine[] = "### Begin of RingBuffer. ###\n";
constexpr const char kEndMarker[] = "## TRACE-END ##\n";
constexpr size_t kEndMarkerLength = sizeof(kEndMarker) - 1;
constexpr const char* kWrapText = CTraceReader::kLogWrapText;
constexpr size_t kTimeLength = CTraceReader::kTimeStampLength;
// Name column of 13 characters plus its blank.
constexpr size_t kNameColumn = 14;
// Where the thread column opens and the name (or memory) column starts.
constexpr size_t kThreadOpen = kTimeLength + 1;
constexpr size_t kNameStart = kThreadOpen + 10 + 1;
// With the memory column: "%8zu KB !" before the name.
constexpr size_t kMemoryDigits = 8;
constexpr const char kMemoryUnit[] = " KB !";
constexpr size_t kMemoryColumnLength = kMemoryDigits + sizeof(kMemoryUnit) - 1;

// Bounded search of `needle` in [from, size).
size_t Find(const char* data, size_t size, size_t from, const char* needle, size_t nlen)
{
    if (nlen == 0 || from > size || size - from < nlen)
        return std::string::npos;
    const void* hit = memmem(data + from, size - from, needle, nlen);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - data) : std::string::npos;
}

// Appends the complete lines of [from, to) to `out`; a last line without
// newline is skipped.  Returns false when such a rest was present.
bool AppendLines(const char* data, size_t from, size_t to, std::vector<std::string>& out)
{
    size_t p = from;
    while (p < to) {
        const void* nl = memchr(data + p, '\n', to - p);
        if (!nl)
            return false;
        size_t e = static_cast<size_t>(static_cast<const char*>(nl) - data);
        out.emplace_back(data + p, e - p);
        p = e + 1;
    }
    return true;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

} // namespace

bool CTraceReader::IsEntryLine(const char* t, size_t len)
{
    if (len < kTimeLength + 2)
        return false;
    static const char pattern[] = "dddd-dd-dd dd:dd:dd.ddd [";
    for (size_t i = 0; i < kTimeLength + 2; ++i) {
        if (pattern[i] == 'd') {
            if (!IsDigit(t[i]))
                return false;
        } else if (t[i] != pattern[i]) {
            return false;
        }
    }
    return true;
}

std::string CTraceReader::MessageOf(const std::string& line)
{
    if (!IsEntryLine(line.data(), line.size()))
        return line;
    // Time, blank, "[XXXXXXXX]", blank.
    size_t p = kNameStart;
    if (p > line.size())
        return line;
    // Memory column: "%8zu KB !" before the name.
    size_t bang = line.find(" KB !", p);
    if (bang != std::string::npos && bang <= p + 20)
        p = bang + 5;
    // The name is padded to 13 columns and followed by a blank; a longer
    // name ends at its first blank.
    size_t end = p + kNameColumn;
    if (end > line.size())
        return std::string();
    if (line[end - 1] != ' ') {
        size_t blank = line.find(' ', p);
        if (blank == std::string::npos)
            return std::string();
        end = blank + 1;
    }
    return line.substr(end);
}

namespace {

bool AllHex(const std::string& s)
{
    for (char c : s)
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

// The figure of a memory column whose unit matched; false when the digits
// are damaged.
bool ParseMemoryDigits(const std::string& l, uint64_t& kb)
{
    std::string digits = l.substr(kNameStart, kMemoryDigits);
    size_t p = digits.find_first_not_of(' ');
    if (p == std::string::npos || digits.find_first_not_of("0123456789", p) != std::string::npos)
        return false;
    kb = strtoull(digits.c_str() + p, nullptr, 10);
    return true;
}

} // namespace

CTraceReader::EntryColumns CTraceReader::ParseEntry(const std::string& l)
{
    EntryColumns e;
    e.isEntry = IsEntryLine(l.data(), l.size());
    e.text = MessageOf(l);
    if (!e.isEntry)
        return e;
    e.time = l.substr(0, kTimeLength);
    if (l.size() >= kThreadOpen + 10 && l[kThreadOpen] == '[' && l[kThreadOpen + 9] == ']') {
        std::string hex = l.substr(kThreadOpen + 1, 8);
        if (AllHex(hex))
            e.thread = static_cast<uint32_t>(strtoul(hex.c_str(), nullptr, 16));
    }
    size_t nameStart = kNameStart;
    uint64_t kb = 0;
    if (l.size() >= kNameStart + kMemoryColumnLength && l.compare(kNameStart + kMemoryDigits, sizeof(kMemoryUnit) - 1, kMemoryUnit) == 0) {
        if (ParseMemoryDigits(l, kb))
            e.memoryKb = kb;
        nameStart += kMemoryColumnLength;
    }
    // The name column runs up to the message (one blank in between).
    if (l.size() >= nameStart && l.size() >= e.text.size() + 1) {
        size_t nameEnd = l.size() - e.text.size() - 1;
        if (nameEnd >= nameStart) {
            std::string name = l.substr(nameStart, nameEnd - nameStart);
            while (!name.empty() && name.back() == ' ')
                name.pop_back();
            e.name = name;
        }
    }
    return e;
}

bool CTraceReader::ParseRingBuffer(const char* data, size_t size, std::vector<std::string>& entries, bool* wrapped)
{
    entries.clear();
    if (wrapped)
        *wrapped = false;
    if (!data)
        return false;
    size_t begin = Find(data, size, 0, kBeginLine, sizeof(kBeginLine) - 1);
    if (begin == std::string::npos)
        return false;
    size_t newest = begin + sizeof(kBeginLine) - 1; // the init end position
    // The end marker follows a whole entry, so it starts a line.
    size_t marker = std::string::npos;
    for (size_t from = newest;;) {
        size_t m = Find(data, size, from, kEndMarker, kEndMarkerLength);
        if (m == std::string::npos)
            break;
        if (m == newest || data[m - 1] == '\n') {
            marker = m;
            break;
        }
        from = m + 1;
    }
    if (marker == std::string::npos) {
        // Truncated or damaged: the lines that are there, in file order.
        AppendLines(data, newest, size, entries);
        return false;
    }

    bool isWrapped = size > 0 && data[size - 1] == '.';
    if (wrapped)
        *wrapped = isWrapped;
    if (isWrapped) {
        // The fill runs from just after the oldest surviving entry to the end.
        size_t fill = size;
        while (fill > marker + kEndMarkerLength && data[fill - 1] != '\n')
            --fill;
        size_t old = marker + kEndMarkerLength;
        if (old < fill && !IsEntryLine(data + old, fill - old)) {
            // The rest of an entry whose start was overwritten.
            const void* nl = memchr(data + old, '\n', fill - old);
            old = nl ? static_cast<size_t>(static_cast<const char*>(nl) - data) + 1 : fill;
        }
        AppendLines(data, old, fill, entries);
    }
    AppendLines(data, newest, marker, entries);
    return true;
}

bool CTraceReader::ParseLogFile(const char* data, size_t size, std::vector<std::string>& lines, bool* wrapped)
{
    lines.clear();
    if (wrapped)
        *wrapped = false;
    if (!data)
        return false;
    std::vector<std::string> all;
    bool whole = AppendLines(data, 0, size, all);

    size_t wrapAt = std::string::npos;
    for (size_t i = 0; i < all.size(); ++i) {
        const std::string& l = all[i];
        if (IsEntryLine(l.data(), l.size()) && l.find(kWrapText) != std::string::npos) {
            wrapAt = i;
            break;
        }
    }
    if (wrapAt == std::string::npos) {
        lines = std::move(all);
        return whole;
    }
    if (wrapped)
        *wrapped = true;

    // The newest part ends at the first line that is no entry line (the
    // rest of an overwritten one) or older than what came before.
    std::string newestTime = all[wrapAt].substr(0, kTimeLength);
    size_t boundary = all.size();
    bool dropFirstOld = false;
    for (size_t i = wrapAt + 1; i < all.size(); ++i) {
        const std::string& l = all[i];
        if (!IsEntryLine(l.data(), l.size())) {
            boundary = i;
            dropFirstOld = true;
            break;
        }
        std::string t = l.substr(0, kTimeLength);
        if (t < newestTime) {
            boundary = i;
            break;
        }
        newestTime = t;
    }
    for (size_t i = 0; i < wrapAt; ++i)
        lines.push_back(std::move(all[i]));
    for (size_t i = boundary + (dropFirstOld ? 1 : 0); i < all.size(); ++i)
        lines.push_back(std::move(all[i]));
    for (size_t i = wrapAt; i < boundary; ++i)
        lines.push_back(std::move(all[i]));
    return whole;
}

bool CTraceReader::ReadWholeFile(const std::string& path, std::string& content)
{
    content.clear();
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    struct stat st;
    if (fstat(fd.Get(), &st) != 0 || st.st_size < 0 || static_cast<uint64_t>(st.st_size) > kFileSizeLimit)
        return false;
    // A file that cannot be read (a directory) reads as empty.
    bool cut = false;
    if (tarvd::ReadFdBounded(fd.Get(), static_cast<size_t>(st.st_size), content, &cut) != 0)
        content.clear();
    return true;
}

bool CTraceReader::ReadRingBuffer(const std::string& path, std::vector<std::string>& entries, bool* wrapped)
{
    std::string content;
    if (!ReadWholeFile(path, content)) {
        entries.clear();
        if (wrapped)
            *wrapped = false;
        return false;
    }
    return ParseRingBuffer(content.data(), content.size(), entries, wrapped);
}

bool CTraceReader::ReadLogFile(const std::string& path, std::vector<std::string>& lines, bool* wrapped)
{
    std::string content;
    if (!ReadWholeFile(path, content)) {
        lines.clear();
        if (wrapped)
            *wrapped = false;
        return false;
    }
    return ParseLogFile(content.data(), content.size(), lines, wrapped);
}

bool CTraceReader::ReadGzipFile(const std::string& path, std::string& content)
{
    content.clear();
    // The path goes into a shell command: allow only a single-quoted form
    // that cannot be broken out of.
    if (path.empty() || path.find('\'') != std::string::npos)
        return false;
    std::string command = "gzip -dc -- '" + path + "' 2>/dev/null";
    FILE* p = popen(command.c_str(), "re");
    if (!p)
        return false;
    char buf[65536];
    bool ok = true;
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) {
        if (content.size() + n > kFileSizeLimit) {
            ok = false;
            break;
        }
        content.append(buf, n);
    }
    int status = pclose(p);
    return ok && status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
