// The per-entry shortcuts of the trace header against the plain library calls they replace:
// the output must be byte for byte the same.
#include "common/ProcStatus.h"
#include "daemon/CProcess.h"
#include "trace/CDebug.h"
#include "trace/CDebugEntryHeaderInternal.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

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
    const struct timeval tv = {sec, usec};
    char out[traceheader::kTimeTextSize];
    cache.Format(tv, out);
    return out;
}

struct TzGuard : testsupport::ScopedEnv {
    explicit TzGuard(const char* tz) : ScopedEnv("TZ", tz) { tzset(); }
    ~TzGuard() { tzset(); }
};

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

struct ProcRootGuard {
    ~ProcRootGuard() { CProcess::SetProcRoot(nullptr); }
};

std::string StatmLine(uint64_t residentPages) { return "2000 " + std::to_string(residentPages) + " 300 10 0 900 0\n"; }

} // namespace

TEST(CDebugEntryHeaderFormat, SameBytesAndResultAsSnprintf)
{
    const std::string times[] = {"2024-02-29 23:59:59.999", traceheader::kUnknownTime, "", std::string(70, 't')};
    const std::string names[] = {"", "kopd", "exactly13char", "fourteen_chars", std::string(128, 'x'),
                                 std::string(129, 'y'), std::string(300, 'n')};
    for (const auto& t : times)
        for (const auto& n : names)
            for (unsigned th : {0u, 0xDEADBEEFu, 0xFFFFFFFFu, 0x0000A0B1u})
                for (uint64_t kb : {0ull, 7ull, 12345678ull, 123456789ull, 0xFFFFFFFFFFFFFFFFull})
                    for (int memory = 0; memory < 2; ++memory)
                        for (size_t size : {0, 1, 10, 40, 128, 600}) {
                            char expected[600], actual[600];
                            memset(expected, '#', sizeof(expected));
                            memset(actual, '#', sizeof(actual));
                            int e = memory ? snprintf(expected, size, "%s [%08X] %8zu %s !%-13s ", t.c_str(), th,
                                                      static_cast<size_t>(kb), "KB", n.c_str())
                                           : snprintf(expected, size, "%s [%08X] %-13s ", t.c_str(), th, n.c_str());
                            int a = traceheader::FormatEntryHeader(actual, size, t.c_str(), th, memory, kb, n.c_str());
                            ASSERT_EQ(a, e) << "time '" << t << "' name '" << n << "' size " << size;
                            // Nothing written beyond what snprintf wrote.
                            ASSERT_EQ(0, memcmp(expected, actual, sizeof(expected))) << t << "/" << n << "/" << size;
                        }
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
        for (auto [sec, usec] : c.sequence)
            EXPECT_EQ(CachedTime(cache, sec, usec), ReferenceTime({sec, usec})) << sec << "." << usec;
        for (auto [sec, text] : c.exact)
            EXPECT_EQ(CachedTime(cache, sec, 7000), text);
    }
}

// A switched /proc root is followed at once, malformed statm contents are
// refused, and a forked child reads its own file, not the parent's.
TEST(CResidentSize, FollowsProcRootRefusesMalformedStatmAndForkedChildReadsItsOwn)
{
    ProcRootGuard guard;
    testsupport::TempDir dir;
    const std::string pidDir = dir.Sub(std::to_string(getpid()));
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", StatmLine(25)));
    CResidentSizeReader reader;
    uint64_t kb = 0;
    ASSERT_TRUE(reader.ReadKilobytes(kb, 1));  // the real one
    CProcess::SetProcRoot(dir.Path().c_str());
    EXPECT_TRUE(reader.ReadKilobytes(kb, 1) && kb == 25 * kPage / 1024);  // same key, but /proc switched
    for (const char* bad : {"", "abc def\n", "12\n", "12 x9\n", "12 \n", " 5 6\n", "12 99999999999999999999999\n"}) {
        ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", bad));
        CProcess::SetProcRoot(dir.Path().c_str());  // reopen for the new content
        uint64_t value = 777;
        EXPECT_TRUE(!reader.ReadKilobytes(value) && value == 777u) << "'" << bad << "'";
    }
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/statm", "1 4"));
    CProcess::SetProcRoot(dir.Path().c_str());
    EXPECT_TRUE(reader.ReadKilobytes(kb, 9) && kb == 4 * kPage / 1024) << kb;
    testsupport::TraceEnv::ExpectExit(testsupport::TraceEnv::InChild([&] {
        const std::string own = dir.Sub(std::to_string(getpid()));
        uint64_t value = 0;
        bool ok = testsupport::WriteFile(own + "/statm", StatmLine(8)) && reader.ReadKilobytes(value, 9);
        return ok && value == 8 * kPage / 1024 ? 0 : 1;
    }), 0);
}

// The header of a trace object: the memory column from the status file
// where statm is missing; the time text between two clock readings.
TEST(CDebugEntryHeader, MemoryColumnFromStatusWithoutStatmAndTimeBetweenClockReadings)
{
    ProcRootGuard guard;
    testsupport::TempDir dir;
    const std::string pidDir = dir.Sub(std::to_string(getpid()));
    ASSERT_TRUE(testsupport::WriteFile(pidDir + "/status", "Name:\tx\nVmRSS:\t    2048 kB\n"));
    CProcess::SetProcRoot(dir.Path().c_str());
    CDebug debug;  // memory column on until configured otherwise
    char header[200];
    ASSERT_GT(debug.SetEntryHeader(header, sizeof(header), "Bench"), 0);
    EXPECT_EQ(std::string(header).substr(23), " [" + std::string(header + 25, 8) + "]     2048 KB !Bench         ");
    for (int i = 0; i < 2000; ++i) {
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        debug.SetEntryHeader(header, sizeof(header), nullptr);
        gettimeofday(&after, nullptr);
        const std::string text(header, 23);
        ASSERT_GE(text, ReferenceTime(before));
        ASSERT_LE(text, ReferenceTime(after));
        ASSERT_EQ(header[23], ' ');
    }
    EXPECT_EQ(std::string(header).substr(strlen(header) - 15), "!              ");  // no program name: blank
}
