// Malformed /proc/<pid>/status files and the figure read from them.
#include "daemon/CProcess.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

constexpr uint64_t kUntouched = 0x1234;

struct StatusCase {
    const char* what;
    std::string content;
    const char* field;
    unsigned unit;
    uint64_t expected;
};

std::string Padding(size_t n) { return "Name:\t" + std::string(n, 'x') + "\n"; }

// "VmRSS:\t123" ends exactly at the 16 KiB read limit, "456 kB" lies beyond.
std::string CutAtLimit()
{
    std::string tail = "VmRSS:\t123";
    std::string pad = Padding(16384 - tail.size() - 7);
    return pad + tail + "456 kB\n";
}

std::vector<StatusCase> Cases()
{
    using namespace std::string_literals;
    return {
        {"empty file", "", "VmRSS:", 1, kUntouched},
        {"field only", "VmRSS:", "VmRSS:", 0, 0},
        {"field without figure", "VmRSS:\t kB\n", "VmRSS:", 0, 0},
        {"letters for the figure", "VmRSS:\tabc kB\n", "VmRSS:", 0, 0},
        {"digits then letters", "VmRSS:\t12ab kB\n", "VmRSS:", 0, 12 * 1024},
        {"no unit", "VmRSS:\t2048\n", "VmRSS:", 0, 2048},
        {"unknown unit", "VmRSS:\t2048 TB\n", "VmRSS:", 0, 2048},
        {"unit in lower case", "VmRSS:\t2048 kb\n", "VmRSS:", 0, 2048},
        {"figure overflows 64 bits", "VmRSS:\t99999999999999999999 kB\n", "VmRSS:", 0, UINT64_MAX},
        {"figure overflows in kilobytes", "VmRSS:\t99999999999999999999 kB\n", "VmRSS:", 1, UINT64_MAX >> 10},
        {"unit factor overflows", "VmRSS:\t18014398509481984 kB\n", "VmRSS:", 0, UINT64_MAX},
        {"largest figure without overflow", "VmRSS:\t18014398509481983 kB\n", "VmRSS:", 1, 18014398509481983ull},
        {"gigabytes", "VmRSS:\t3 GB\n", "VmRSS:", 2, 3072},
        {"field without colon", "VmRSS\t5 kB\n", "VmRSS:", 0, kUntouched},
        {"field as prefix of a longer word", "VmRSSx:\t5 kB\n", "VmRSS:", 0, kUntouched},
        {"NUL inside the first line", "VmR\0SS:\t5 kB\nVmRSS:\t7 kB\n"s, "VmRSS:", 0, 7 * 1024},
        {"NUL inside the figure", "VmRSS:\t1\0002 kB\n"s, "VmRSS:", 0, 1024},
        {"carriage returns", "VmRSS:\t5 kB\r\n", "VmRSS:", 0, 5 * 1024},
        {"line longer than the read limit hides the field", Padding(20000) + "VmRSS:\t5 kB\n", "VmRSS:", 0,
         kUntouched},
        {"field cut by the read limit is not taken", CutAtLimit(), "VmRSS:", 0, kUntouched},
        {"field before a long line", "VmRSS:\t5 kB\n" + Padding(20000), "VmRSS:", 0, 5 * 1024},
        {"last line without newline", "Pid:\t1\nVmRSS:\t9 kB", "VmRSS:", 0, 9 * 1024},
        {"first of two lines wins", "VmRSS:\t1 kB\nVmRSS:\t2 kB\n", "VmRSS:", 0, 1024},
    };
}

TEST(CProcessMalformedStatus, EachInputGivesItsExactFigure)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(testsupport::MakeDirs(dir.Sub("proc/42")));
    CProcess::SetProcRoot(dir.Sub("proc").c_str());
    for (const StatusCase& c : Cases()) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(testsupport::WriteFile(dir.Sub("proc/42/status"), c.content));
        uint64_t value = kUntouched;
        CProcess::GetProcessMemorySpecificInfo(42, value, c.field, c.unit);
        EXPECT_EQ(c.expected, value);
    }
    CProcess::SetProcRoot(nullptr);
}

} // namespace
