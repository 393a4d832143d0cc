// The streamed log reader of koptrace against the trace's own log reader:
// the same lines in the same order for every prefix of every layout.
#include "tools/common/LogStream.h"

#include "support/TestSupport.h"
#include "trace/CTraceReader.h"

#include <gtest/gtest.h>

namespace {

std::string At(const char* time, const std::string& text)
{
    return std::string(time) + " [0000ABCD] kopd          " + text + "\n";
}

const std::string kWrap = "------ WRAP ----- Cycle=2, CntInitEnd=10, CurrentByteCnt=10 (MaxCnt=100)";

} // namespace

TEST(LogStream, SameLinesAsTheLogReaderForEveryPrefix)
{
    const std::string t0 = "2024-01-01 00:00:00.000", t1 = "2024-01-01 00:00:01.000",
                      t5 = "2024-01-01 00:00:05.000", t9 = "2024-01-01 00:00:09.000";
    const std::string cases[] = {
        "header line\n" + At(t0.c_str(), "one") + "continued\n" + At(t1.c_str(), "two"),
        // kept start, wrap, newest part, the rest of an overwritten line, older text
        At(t0.c_str(), "kept") + At(t9.c_str(), kWrap) + At(t9.c_str(), "newest1") + "d line\n" +
            At(t5.c_str(), "old1") + At(t5.c_str(), "old2"),
        // the older text found by its time
        At(t9.c_str(), kWrap) + At(t9.c_str(), "new") + At(t1.c_str(), "old"),
    };
    testsupport::TempDir dir;
    const std::string path = dir.Sub("log.x");
    for (const std::string& data : cases) {
        for (size_t n = 0; n <= data.size(); ++n) {
            SCOPED_TRACE(data.substr(0, n));
            ASSERT_TRUE(testsupport::WriteFile(path, data.substr(0, n)));
            std::vector<std::string> expected, got;
            bool whole = CTraceReader::ParseLogFile(data.data(), n, expected);
            CLogStream stream;
            std::string reason = stream.Open(path);
            if (!reason.empty()) {  // refused only when no entry line is there
                for (const std::string& l : expected)
                    EXPECT_FALSE(CTraceReader::IsEntryLine(l.data(), l.size())) << reason;
                continue;
            }
            for (std::string line; stream.Next(line);)
                got.push_back(line);
            EXPECT_EQ(got, expected);
            EXPECT_EQ(stream.Complete(), whole);
            EXPECT_EQ(stream.Count(), got.size());
        }
    }
}
