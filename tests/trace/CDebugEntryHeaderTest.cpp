// The per-entry shortcuts of the trace header (cached time text, hand-made
// header line, kept-open resident size) against the plain library calls
// they replace: the output must be byte for byte the same.
#include "common/ProcStatus.h"
#include "daemon/CProcess.h"
#include "trace/CDebug.h"
#include "trace/CDebugEntryHeaderInternal.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// The time text as localtime_r + strftime + snprintf give it.
std::string ReferenceTime(const struct timeval& tv)
{
    struct tm tmv;
    char seconds[22];
    char text[28];
    if (localtime_r(&tv.tv_sec, &tmv) != nullptr && strftime(seconds, sizeof(seconds), "%F %H:%M:%S", &tmv) != 0)
        snprintf(text, sizeof(text), "%s.%03d", seconds, static_cast<int>(tv.tv_usec / 1000));
    else
        snprintf(text, sizeof(text), "%s", "yyyy-mm-dd hh:mm:ss.mmm");
    return text;
}

std::string CachedTime(traceheader::CTimeTextCache& cache, time_t sec, long usec)
{
    struct timeval tv;
    tv.tv_sec = sec;
    tv.tv_usec = usec;
    char out[traceheader::kTimeTextSize];
    cache.Format(tv, out);
    return out;
}

struct TzGuard {
    explicit TzGuard(const char* tz) : env("TZ", tz) { tzset(); }
    ~TzGuard() { tzset(); }
    testsupport::ScopedEnv env;
};

struct ProcRootGuard {
    ~ProcRootGuard() { CProcess::SetProcRoot(nullptr); }
};

std::string StatmLine(uint64_t residentPages) { return "2000 " + std::to_string(residentPages) + " 300 10 0 900 0\n"; }

} // namespace

TEST(CDebugEntryHeaderFormat, SameBytesAndResultAsSnprintf)
{
    const std::string longName(300, 'n');
    const std::vector<std::string> times = {"2024-02-29 23:59:59.999", traceheader::kUnknownTime, "",
                                            std::string(70, 't')};
    const std::vector<std::string> names = {"", "kopd", "exactly13char", "fourteen_chars", std::string(128, 'x'),
                                            std::string(129, 'y'), longName};
    const std::vector<unsigned> threads = {0u, 0xDEADBEEFu, 0xFFFFFFFFu, 0x0000A0B1u};
    const std::vector<uint64_t> sizes = {0, 7, 12345678, 123456789, 0xFFFFFFFFFFFFFFFFull};
    const std::vector<size_t> bufferSizes = {0, 1, 10, 40, 128, 600};
    int cases = 0;
    for (const auto& t : times)
        for (const auto& n : names)
            for (unsigned th : threads)
                for (uint64_t kb : sizes)
                    for (bool memory : {false, true})
                        for (size_t size : bufferSizes) {
                            char expected[600];
                            char actual[600];
                            memset(expected, '#', sizeof(expected));
                            memset(actual, '#', sizeof(actual));
                            int e = memory ? snprintf(expected, size, "%s [%08X] %8zu %s !%-13s ", t.c_str(), th,
                                                      static_cast<size_t>(kb), "KB", n.c_str())
                                           : snprintf(expected, size, "%s [%08X] %-13s ", t.c_str(), th, n.c_str());
                            int a = traceheader::FormatEntryHeader(actual, size, t.c_str(), th, memory, kb, n.c_str());
                            ASSERT_EQ(a, e) << "time '" << t << "' name '" << n << "' size " << size;
                            // Nothing written beyond what snprintf wrote.
                            ASSERT_EQ(0, memcmp(expected, actual, sizeof(expected)))
                                << "time '" << t << "' name '" << n << "' size " << size;
                            ++cases;
                        }
    EXPECT_GT(cases, 1000);
}

TEST(CDebugTimeTextCache, MatchesStrftimeOverJumpsClockSetBackDaylightSavingAndOverflow)
{
    const time_t base = 1700000000;      // 2023-11-14 22:13:20 UTC
    const time_t change = 1711846800;    // 2024-03-31 01:00:00 UTC: Berlin from 02:00 to 03:00
    const time_t huge = static_cast<time_t>(0x7FFFFFFFFFFFFFFFll);  // beyond localtime_r
    const struct {
        const char* tz;
        std::vector<std::pair<time_t, long>> sequence;
        std::vector<std::pair<time_t, const char*>> exact;  // at usec 7000
    } cases[] = {
        {"UTC",
         {{base, 0}, {base, 999}, {base, 1000}, {base, 999999}, {base + 1, 0}, {base + 1, 500000}, {base - 3600, 1},
          {base - 3600, 1}, {base, 123456}, {base + 86400, 999000}, {0, 0}, {0, 999999}, {951868799, 999999},
          {951868800, 0} /* 29 Feb 2000 */, {base, 0}, {huge, 0}, {huge, 0}, {base, 1000}},
         {{base, "2023-11-14 22:13:20.007"}, {huge, "yyyy-mm-dd hh:mm:ss.mmm"}, {base, "2023-11-14 22:13:20.007"}}},
        {"Europe/Berlin",
         {{change - 2, 0}, {change - 1, 999999}, {change, 0}, {change, 999999}, {change + 1, 0}, {change + 2, 0}},
         {{change - 1, "2024-03-31 01:59:59.007"}, {change, "2024-03-31 03:00:00.007"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tz);
        if (std::string(c.tz) != "UTC" && !testsupport::FileExists(std::string("/usr/share/zoneinfo/") + c.tz))
            continue;  // no time zone data
        TzGuard tz(c.tz);
        traceheader::CTimeTextCache cache;
        for (auto [sec, usec] : c.sequence) {
            struct timeval tv;
            tv.tv_sec = sec;
            tv.tv_usec = usec;
            EXPECT_EQ(CachedTime(cache, sec, usec), ReferenceTime(tv)) << sec << "." << usec;
        }
        for (auto [sec, text] : c.exact)
            EXPECT_EQ(CachedTime(cache, sec, 7000), text);
    }
}

TEST(CResidentSize, EqualsVmRssOfStatusFile)
{
    CResidentSizeReader reader;
    // Memory may change between the two reads (another thread of the test
    // program); a quiet moment gives equal figures.
    bool equal = false;
    uint64_t fast = 0, status = 0;
    for (int attempt = 0; attempt < 50 && !equal; ++attempt) {
        ASSERT_TRUE(reader.ReadKilobytes(fast));
        status = 0;
        CProcess::GetProcessMemorySpecificInfo(static_cast<uint32_t>(getpid()), status, "VmRSS:", CProcess::KILOBYTES);
        equal = fast == status;
    }
    EXPECT_TRUE(equal) << "statm " << fast << " kB, status " << status << " kB";
    EXPECT_GT(fast, 0u);
}

TEST(CResidentSize, SampleKeySharesOneReadAndNewKeyReadsAgain)
{
    CResidentSizeReader reader;
    uint64_t first = 0;
    ASSERT_TRUE(reader.ReadKilobytes(first, 42));
    // 64 MiB made resident: a new read must see it, the same key must not.
    const size_t size = 64u << 20;
    std::unique_ptr<char[]> ballast(new char[size]);
    memset(ballast.get(), 1, size);
    uint64_t again = 0;
    ASSERT_TRUE(reader.ReadKilobytes(again, 42));
    EXPECT_EQ(again, first);
    uint64_t fresh = 0;
    ASSERT_TRUE(reader.ReadKilobytes(fresh, 43));
    EXPECT_GE(fresh, first + 60000);
    uint64_t unkeyed = 0;
    ASSERT_TRUE(reader.ReadKilobytes(unkeyed));
    EXPECT_GE(unkeyed, first + 60000);
    EXPECT_EQ(ballast[size - 1], 1);
}

TEST(CResidentSize, FollowsProcRootAndRejectsMalformedStatm)
{
    ProcRootGuard guard;
    testsupport::TempDir dir;
    const std::string pidDir = dir.Sub(std::to_string(getpid()));
    ASSERT_TRUE(testsupport::MakeDirs(pidDir));
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", StatmLine(25)));
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

    CResidentSizeReader reader;
    uint64_t kb = 0;
    ASSERT_TRUE(reader.ReadKilobytes(kb, 1)); // the real one
    CProcess::SetProcRoot(dir.Path().c_str());
    ASSERT_TRUE(reader.ReadKilobytes(kb, 1)); // same key, but /proc switched
    EXPECT_EQ(kb, 25 * page / 1024);

    for (const char* bad : {"", "abc def\n", "12\n", "12 x9\n", "12 \n", " 5 6\n", "12 99999999999999999999999\n"}) {
        ProcRootGuard inner;
        CProcess::SetProcRoot(dir.Path().c_str()); // reopen for the new content
        ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", bad));
        uint64_t value = 777;
        EXPECT_FALSE(reader.ReadKilobytes(value)) << "'" << bad << "'";
        EXPECT_EQ(value, 777u);
    }
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", "1 3"));
    CProcess::SetProcRoot(dir.Path().c_str());
    ASSERT_TRUE(reader.ReadKilobytes(kb));
    EXPECT_EQ(kb, 3 * page / 1024);
}

TEST(CResidentSize, ForkedChildReadsItsOwnFile)
{
    ProcRootGuard guard;
    testsupport::TempDir dir;
    const std::string parentDir = dir.Sub(std::to_string(getpid()));
    ASSERT_TRUE(testsupport::MakeDirs(parentDir));
    ASSERT_TRUE(testsupport::WriteFile(parentDir + "/statm", StatmLine(4)));
    CProcess::SetProcRoot(dir.Path().c_str());
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    CResidentSizeReader reader;
    uint64_t kb = 0;
    ASSERT_TRUE(reader.ReadKilobytes(kb, 9));
    ASSERT_EQ(kb, 4 * page / 1024);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string own = dir.Sub(std::to_string(getpid()));
        bool ok = testsupport::MakeDirs(own) && testsupport::WriteFile(own + "/statm", StatmLine(8));
        uint64_t value = 0;
        ok = ok && reader.ReadKilobytes(value, 9) && value == 8 * page / 1024;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child read its parent's figure";
}

TEST(CDebugEntryHeader, MemoryColumnFromStatmOrFromStatusFallback)
{
    ProcRootGuard guard;
    testsupport::TempDir dir;
    const std::string pidDir = dir.Sub(std::to_string(getpid()));
    ASSERT_TRUE(testsupport::MakeDirs(pidDir));
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/status", "Name:\tx\nVmRSS:\t    2048 kB\n"));
    CProcess::SetProcRoot(dir.Path().c_str());

    CDebug debug; // memory column on until configured otherwise
    char header[200];
    int n = debug.SetEntryHeader(header, sizeof(header), "Bench");
    ASSERT_GT(n, 0);
    std::string h(header);
    EXPECT_EQ(h.substr(23), " [" + std::string(header + 25, 8) + "]     2048 KB !Bench         ");

    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", StatmLine(1000)));
    CProcess::SetProcRoot(dir.Path().c_str());
    debug.SetEntryHeader(header, sizeof(header), "Bench");
    char expected[32];
    snprintf(expected, sizeof(expected), "%8zu KB !", static_cast<size_t>(1000 * page / 1024));
    EXPECT_EQ(std::string(header).substr(35, strlen(expected)), expected);
}

TEST(CDebugEntryHeader, TimeTextLiesBetweenClockReadings)
{
    CDebug debug;
    for (int i = 0; i < 2000; ++i) {
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        char header[200];
        debug.SetEntryHeader(header, sizeof(header), nullptr);
        gettimeofday(&after, nullptr);
        const std::string text(header, 23);
        ASSERT_GE(text, ReferenceTime(before));
        ASSERT_LE(text, ReferenceTime(after));
        ASSERT_EQ(header[23], ' ');
    }
}
