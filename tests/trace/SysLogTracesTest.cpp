#include "trace/FailureReport.h"
#include "trace/SysLogTraces.h"

#include "support/SysLogCapture.h"
#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <cstdarg>

namespace {

using Logged = std::vector<std::pair<int, std::string>>;

class SysLogTracesTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::TakeSysLogLines(); }
    static void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)))
    {
        va_list ap;
        va_start(ap, fmt);
        SysLogTraces::getConnection().logMessageVaList(fmt, ap);
        va_end(ap);
    }
    static bool Format(char* buf, size_t size, const char* fmt, ...)
    {
        va_list ap;
        va_start(ap, fmt);
        bool ok = SysLogTraces::FormatMessage(buf, size, fmt, ap);
        va_end(ap);
        return ok;
    }
};

} // namespace

TEST_F(SysLogTracesTest, LeadingNewlinesSkippedLongTextCutNullIgnored)
{
    Log("\n\nCClass : value %d", 5);
    Log("\n\n");  // newlines only: unchanged
    Log("%s", std::string(2000, 'm').c_str());
    SysLogTraces::getConnection().logMessage(nullptr, SysLogTraces::SL_ERR);
    SysLogTraces::getConnection().logMessage("100%", SysLogTraces::SL_ERR);  // passed as is
    EXPECT_EQ(testsupport::TakeSysLogLines(),
              (Logged{{SysLogTraces::SL_INFO, "CClass : value 5"}, {SysLogTraces::SL_INFO, "\n\n"},
                      {SysLogTraces::SL_INFO, std::string(1023, 'm')}, {SysLogTraces::SL_ERR, "100%"}}));
    EXPECT_STREQ(SysLogTraces::getConnection().getProcName(), program_invocation_short_name);
}

// A null format gives the error text; a small buffer stays in bounds.
TEST_F(SysLogTracesTest, FormatMessageOfNullFormatAndIntoSmallBuffers)
{
    char buf[64], tiny[4];
    EXPECT_FALSE(Format(buf, sizeof(buf), nullptr));
    EXPECT_STREQ(buf, "ERROR: cann't format message");
    EXPECT_TRUE(Format(tiny, sizeof(tiny), "\n%s", "abcdef"));
    EXPECT_STREQ(tiny, "abc");
}

// A reported failure: an error entry of the trace, and the text without its leading and trailing newlines,
// '%' doubled (the system log takes it as a format), in the system log with the priority given.
TEST(ReportFailure, WritesTheTraceEntryAndTheSystemLogLine)
{
    testsupport::GlobalTrace trace("1");
    testsupport::TakeSysLogLines();
    ReportFailure(SysLogTraces::SL_WARNING, "\n\nmodule %s: 100%% refused\n\n", "m1");
    EXPECT_TRUE(trace.Has("module m1: 100% refused"));
    EXPECT_EQ(testsupport::TakeSysLogLines(), (Logged{{SysLogTraces::SL_WARNING, "module m1: 100%% refused"}}));
}
