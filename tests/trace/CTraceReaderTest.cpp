#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

namespace {

using Msgs = std::vector<std::string>;

std::string Entry(const std::string& text, const char* time = "2024-01-02 03:04:05.006")
{
    return std::string(time) + " [0000ABCD] kopd          " + text + "\n";
}

const std::string kMarker = "## TRACE-END ##\n";

// Header, pre-fill, begin line, entries, marker, then `tail`.
std::string Ring(const Msgs& newest, const std::string& tail)
{
    std::string r = Entry("Tarvis Environment:") + Entry("# End of header.") + kMarker + std::string(200, '_') + "\n";
    r += Entry("### Begin of RingBuffer. ###");
    for (auto& e : newest)
        r += Entry(e);
    return r + kMarker + tail;
}

const std::string kWrap = "------ WRAP ----- Cycle=2, CntInitEnd=10, CurrentByteCnt=10 (MaxCnt=100)";

} // namespace

// Behind the marker of a wrapped ring: the rest of an overwritten entry (dropped), old entries, the dot fill.
TEST(CTraceReader, RingsAndLogFilesInTimeOrder)
{
    const struct {
        const char* what;
        bool ring;
        std::string data;
        bool ok, wrapped;
        Msgs expected;
    } cases[] = {
        {"ring without wrap", true, Ring({"a", "b"}, std::string(300, '_') + "\n"), true, false, {"a", "b"}},
        {"wrapped ring, cut entry dropped", true,
         Ring({"new1", "new2"}, "rest of an old entry\n" + Entry("old1") + Entry("old2") + std::string(40, '.')),
         true, true, {"old1", "old2", "new1", "new2"}},
        {"old entry right behind the marker", true, Ring({"new"}, Entry("old0") + std::string(20, '.')), true, true,
         {"old0", "new"}},
        {"ring without marker: what is there", true,
         Entry("### Begin of RingBuffer. ###") + Entry("x") + "partial", false, false, {"x"}},
        {"ring without begin line", true, kMarker + "xyz", false, false, {}},
        {"log file without wrap", false, Entry("one") + Entry("two"), true, false, {"one", "two"}},
        {"log file with a cut last line", false, Entry("one") + Entry("two") + "2024-01-02 03:04", false, false,
         {"one", "two"}},
        {"log file across a wrap", false,
         Entry("kept", "2024-01-01 00:00:00.000") + Entry(kWrap, "2024-01-01 00:00:09.000") +
             Entry("newest1", "2024-01-01 00:00:09.000") + Entry("newest2", "2024-01-01 00:00:09.500") + "d line\n" +
             Entry("old1", "2024-01-01 00:00:05.000") + Entry("old2", "2024-01-01 00:00:06.000"),
         true, true, {"kept", "old1", "old2", kWrap, "newest1", "newest2"}},
        {"log file: old text found by its time", false,
         Entry(kWrap, "2024-01-01 00:00:09.000") + Entry("new", "2024-01-01 00:00:09.000") +
             Entry("old", "2024-01-01 00:00:01.000"), true, true, {"old", kWrap, "new"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Msgs lines;
        bool wrapped = !c.wrapped;
        bool ok = c.ring ? CTraceReader::ParseRingBuffer(c.data.data(), c.data.size(), lines, &wrapped)
                         : CTraceReader::ParseLogFile(c.data.data(), c.data.size(), lines, &wrapped);
        EXPECT_EQ(ok, c.ok);
        EXPECT_TRUE(!c.ok || wrapped == c.wrapped);
        EXPECT_EQ(testsupport::TraceEnv::Messages(lines), c.expected);
        // Every prefix: no overrun (own allocations, so that ASan sees one);
        // a ring is complete from its last marker on.
        for (size_t n = 0; n <= c.data.size(); ++n) {
            std::string cut = c.data.substr(0, n);
            ok = c.ring ? CTraceReader::ParseRingBuffer(cut.data(), cut.size(), lines)
                        : CTraceReader::ParseLogFile(cut.data(), cut.size(), lines);
            EXPECT_TRUE(!c.ring || !c.ok || ok == (n >= c.data.rfind(kMarker) + kMarker.size())) << n;
        }
    }
    Msgs e;
    EXPECT_FALSE(CTraceReader::ParseRingBuffer(nullptr, 0, e) || CTraceReader::ReadRingBuffer("/nonexistent/ring", e));
}

TEST(CTraceReader, ParseEntrySplitsColumnsAndLeavesOutDamagedOnes)
{
    const std::string t = "2024-01-02 03:04:05.678 ";
    struct Case {
        std::string line;
        bool isEntry;
        long thread, memoryKb;  // -1: none
        const char* name;       // null: none
        const char* text;       // MessageOf as well
    } cases[] = {
        {t + "[0000ABCD]     1234 KB !kopd          hello", true, 0xABCD, 1234, "kopd", "hello"},
        {t + "[DEADBEEF] averylongname1234 text", true, 0xDEADBEEF, -1, "averylongname1234", "text"},
        {t + "[DEADBEEF] kopd          plain", true, 0xDEADBEEF, -1, "kopd", "plain"},
        {t + "[DEADBEEF] kopd           leading blank", true, 0xDEADBEEF, -1, "kopd", " leading blank"},
        {t + "[0000ABCD] kop", true, 0xABCD, -1, "ko", ""},
        {t + "[XYZ00000]     12x4 KB !kopd          bad", true, -1, -1, "kopd", "bad"},
        {t + "[0000000", true, -1, -1, nullptr, "2024-01-02 03:04:05.678 [0000000"},
        {"continuation line", false, -1, -1, nullptr, "continuation line"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        CTraceReader::EntryColumns e = CTraceReader::ParseEntry(c.line);
        EXPECT_EQ(e.isEntry, c.isEntry);
        EXPECT_EQ(e.text, c.text);
        EXPECT_EQ(CTraceReader::MessageOf(c.line), c.text);
        EXPECT_EQ(e.time.has_value(), c.isEntry);
        EXPECT_EQ(e.thread ? static_cast<long>(*e.thread) : -1L, c.thread);
        EXPECT_EQ(e.memoryKb ? static_cast<long>(*e.memoryKb) : -1L, c.memoryKb);
        EXPECT_EQ(e.name.value_or("<none>"), c.name ? c.name : "<none>");
    }
    EXPECT_FALSE(CTraceReader::IsEntryLine("2024-01-02", 10));
}
