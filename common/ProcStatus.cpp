#include "common/ProcStatus.h"

#include "common/FileIO.h"
#include "common/NumberParse.h"
#include "common/UniqueHandle.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <pthread.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace tarvd {

namespace {

constexpr const char* kDefaultProcRoot = "/proc";
// /proc/<pid>/status is about 1.5 KiB; anything beyond this is not looked at.
constexpr size_t kStatusReadLimit = 16384;

// Changes whenever a kept-open /proc descriptor may point at the wrong file:
// after SetProcRoot and in the child of a fork (statm of the parent).
std::atomic<unsigned> g_ProcGeneration{1};

void BumpProcGeneration() { g_ProcGeneration.fetch_add(1, std::memory_order_relaxed); }

std::string& Root()
{
    static std::string root = kDefaultProcRoot;
    return root;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// Multiplier of a unit text of /proc/<pid>/status.
uint64_t UnitFactor(const char* u, size_t len)
{
    if (len == 2 && u[1] == 'B') {
        if (u[0] == 'k')
            return 1024ull;
        if (u[0] == 'M')
            return 1024ull * 1024;
        if (u[0] == 'G')
            return 1024ull * 1024 * 1024;
    }
    return 1;
}

const char* SkipBlanks(const char* p, const char* end)
{
    while (p < end && IsBlank(*p))
        ++p;
    return p;
}

const char* SkipWord(const char* p, const char* end)
{
    while (p < end && !IsBlank(*p))
        ++p;
    return p;
}

// The figure and unit after the field name of one line.
uint64_t LineFigure(const char* q, const char* lineEnd)
{
    q = SkipBlanks(q, lineEnd);
    uint64_t number = 0;
    tarvd::ParseDigits(q, lineEnd, number);
    q = SkipBlanks(SkipWord(q, lineEnd), lineEnd);  // also the rest of a malformed number
    const char* u = q;
    q = SkipWord(q, lineEnd);
    const uint64_t factor = UnitFactor(u, static_cast<size_t>(q - u));
    return number > UINT64_MAX / factor ? UINT64_MAX : number * factor;
}

} // namespace

const std::string& ProcRoot() { return Root(); }

void SetProcRoot(const char* root)
{
    Root() = (root && *root) ? root : kDefaultProcRoot;
    BumpProcGeneration();
}

void ReadProcStatusField(uint32_t pid, const char* field, unsigned unitSteps, uint64_t& value)
{
    if (!field || !*field)
        return;
    char path[PATH_MAX];
    int n = snprintf(path, sizeof(path), "%s/%u/status", Root().c_str(), pid);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(path))
        return;
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd)
        return;
    char buf[kStatusReadLimit];
    ssize_t got = ReadFull(fd.Get(), buf, sizeof buf);
    size_t len = got > 0 ? static_cast<size_t>(got) : 0;

    // A line cut by the read limit is not looked at: its figure could be
    // cut too and read as a much smaller one.
    if (len == sizeof(buf)) {
        const char* lastNl = static_cast<const char*>(memrchr(buf, '\n', len));
        len = lastNl ? static_cast<size_t>(lastNl - buf) + 1 : 0;
    }
    const size_t fieldLen = strlen(field);
    const char* p = buf;
    const char* end = buf + len;
    while (p < end) {
        const char* lineEnd = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
        if (!lineEnd)
            lineEnd = end;
        const char* w = SkipBlanks(p, lineEnd);
        const char* we = SkipWord(w, lineEnd);
        if (static_cast<size_t>(we - w) == fieldLen && memcmp(w, field, fieldLen) == 0) {
            value = LineFigure(we, lineEnd);
            for (unsigned i = 0; i < unitSteps; ++i)
                value >>= 10;
            return;
        }
        p = lineEnd + 1;
    }
}

} // namespace tarvd

// ---- CResidentSizeReader ------------------------------------------------------

CResidentSizeReader::CResidentSizeReader()
{
    static const bool registered = pthread_atfork(nullptr, nullptr, &tarvd::BumpProcGeneration) == 0;
    (void)registered;
    long page = sysconf(_SC_PAGESIZE);
    m_PageSize = page > 0 ? static_cast<uint64_t>(page) : 4096;
}

bool CResidentSizeReader::ReadKilobytes(uint64_t& kb, int64_t sampleKey)
{
    unsigned generation = tarvd::g_ProcGeneration.load(std::memory_order_relaxed);
    if (sampleKey >= 0 && sampleKey == m_SampleKey && generation == m_Generation && m_Fd) {
        kb = m_SampleKb;
        return true;
    }
    m_SampleKey = -1;
    if (generation != m_Generation || !m_Fd) {
        char path[PATH_MAX];
        int n = snprintf(path, sizeof(path), "%s/%u/statm", tarvd::ProcRoot().c_str(), static_cast<unsigned>(getpid()));
        if (n < 0 || static_cast<size_t>(n) >= sizeof(path))
            return false;
        m_Fd.Reset(open(path, O_RDONLY | O_CLOEXEC));
        m_Generation = generation;
        if (!m_Fd)
            return false;
    }
    // "size resident shared text lib data dt": seven page counts.
    char buf[160];
    ssize_t r;
    do {
        r = pread(m_Fd.Get(), buf, sizeof(buf), 0);
    } while (r < 0 && errno == EINTR);
    if (r <= 0)
        return false;
    const char* p = buf;
    const char* end = buf + r;
    while (p < end && *p >= '0' && *p <= '9')
        ++p; // size
    if (p == buf || p >= end || *p != ' ')
        return false;
    ++p;
    const char* digits = p;
    uint64_t pages = 0;
    while (p < end && *p >= '0' && *p <= '9' && p - digits < 19)
        pages = pages * 10 + static_cast<uint64_t>(*p++ - '0');
    if (p == digits || (p < end && *p != ' ' && *p != '\n'))
        return false;
    kb = pages * m_PageSize / 1024;
    m_SampleKey = sampleKey;
    m_SampleKb = kb;
    return true;
}
