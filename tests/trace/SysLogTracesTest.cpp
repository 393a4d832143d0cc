#include "trace/SysLogTraces.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

namespace {

struct Logged {
    int priority;
    std::string text;
};
std::vector<Logged> g_Logged;

void Record(int priority, const char* text) { g_Logged.push_back({priority, text}); }

class SysLogTracesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_Logged.clear();
        SysLogTraces::SetSink(Record);
    }
    void TearDown() override { SysLogTraces::SetSink(nullptr); }
    static void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)))
    {
        va_list ap;
        va_start(ap, fmt);
        SysLogTraces::getConnection().logMessageVaList(fmt, ap);
        va_end(ap);
    }
};

} // namespace

TEST_F(SysLogTracesTest, LeadingNewlinesSkipped)
{
    Log("\n\nCClass : value %d", 5);
    Log("\n\n");
    ASSERT_EQ(g_Logged.size(), 2u);
    EXPECT_EQ(g_Logged[0].priority, SysLogTraces::SL_INFO);
    EXPECT_EQ(g_Logged[0].text, "CClass : value 5");
    EXPECT_EQ(g_Logged[1].text, "\n\n"); // newlines only: unchanged
}

TEST_F(SysLogTracesTest, LongMessageCutTo1023)
{
    std::string big(2000, 'm');
    Log("%s", big.c_str());
    ASSERT_EQ(g_Logged.size(), 1u);
    EXPECT_EQ(g_Logged[0].text, big.substr(0, 1023));
}

TEST_F(SysLogTracesTest, NullTextLogsNothingAndTextIsPassedAsIs)
{
    SysLogTraces::getConnection().logMessage(nullptr, SysLogTraces::SL_ERR);
    EXPECT_TRUE(g_Logged.empty());
    SysLogTraces::getConnection().logMessage("100%", SysLogTraces::SL_ERR);
    ASSERT_EQ(g_Logged.size(), 1u);
    EXPECT_EQ(g_Logged[0].priority, SysLogTraces::SL_ERR);
    EXPECT_EQ(g_Logged[0].text, "100%");
}

TEST_F(SysLogTracesTest, OneInstanceAndProcessName)
{
    EXPECT_EQ(&SysLogTraces::getConnection(), &SysLogTraces::getConnection());
    EXPECT_STREQ(SysLogTraces::getConnection().getProcName(), program_invocation_short_name);
}

namespace {
bool FormatInto(char* buf, size_t size, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    bool ok = SysLogTraces::FormatMessage(buf, size, fmt, ap);
    va_end(ap);
    return ok;
}
} // namespace

TEST(SysLogTracesFormat, NullFormatGivesErrorTextAndSmallBuffersStayInBounds)
{
    char buf[64];
    EXPECT_FALSE(FormatInto(buf, sizeof(buf), nullptr));
    EXPECT_STREQ(buf, "ERROR: cann't format message");
    char tiny[4];
    EXPECT_TRUE(FormatInto(tiny, sizeof(tiny), "\n%s", "abcdef"));
    EXPECT_STREQ(tiny, "abc");
}
