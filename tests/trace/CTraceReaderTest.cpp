#include "trace/CTraceReader.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string Entry(const std::string& text, const char* time = "2024-01-02 03:04:05.006")
{
    return std::string(time) + " [0000ABCD] kopd          " + text + "\n";
}

const std::string kMarker = "## TRACE-END ##\n";

// Header, pre-fill, begin line, entries, marker, then `tail`.
std::string Ring(const std::vector<std::string>& newest, const std::string& tail)
{
    std::string r = Entry("Tarvis Environment:") + Entry("# End of header.") + kMarker + std::string(200, '_') + "\n";
    r += Entry("### Begin of RingBuffer. ###");
    for (auto& e : newest)
        r += Entry(e);
    r += kMarker + tail;
    return r;
}

std::vector<std::string> Msgs(const std::vector<std::string>& lines)
{
    std::vector<std::string> out;
    for (auto& l : lines)
        out.push_back(CTraceReader::MessageOf(l));
    return out;
}

} // namespace

TEST(CTraceReader, UnwrappedRingFromBeginToMarker)
{
    std::string r = Ring({"a", "b"}, std::string(300, '_') + "\n");
    std::vector<std::string> e;
    bool wrapped = true;
    ASSERT_TRUE(CTraceReader::ParseRingBuffer(r.data(), r.size(), e, &wrapped));
    EXPECT_FALSE(wrapped);
    EXPECT_EQ(Msgs(e), (std::vector<std::string>{"a", "b"}));
}

TEST(CTraceReader, WrappedRingOlderEntriesFirstCutEntryDropped)
{
    // Behind the marker: the rest of an overwritten entry, two old entries, the fill.
    std::string tail = "rest of an old entry\n" + Entry("old1") + Entry("old2") + std::string(40, '.');
    std::string r = Ring({"new1", "new2"}, tail);
    std::vector<std::string> e;
    bool wrapped = false;
    ASSERT_TRUE(CTraceReader::ParseRingBuffer(r.data(), r.size(), e, &wrapped));
    EXPECT_TRUE(wrapped);
    EXPECT_EQ(Msgs(e), (std::vector<std::string>{"old1", "old2", "new1", "new2"}));

    // An old entry that starts exactly behind the marker is kept.
    r = Ring({"new"}, Entry("old0") + std::string(20, '.'));
    ASSERT_TRUE(CTraceReader::ParseRingBuffer(r.data(), r.size(), e, &wrapped));
    EXPECT_EQ(Msgs(e), (std::vector<std::string>{"old0", "new"}));
}

TEST(CTraceReader, TruncatedAndDamagedRingsNeverOverrun)
{
    std::string r = Ring({"a", "b", "c"}, std::string(50, '.'));
    std::vector<std::string> e;
    // Every prefix of the file: no crash, and a result only when complete enough.
    for (size_t n = 0; n <= r.size(); ++n) {
        std::string cut = r.substr(0, n); // own allocation: ASan sees overruns
        bool ok = CTraceReader::ParseRingBuffer(cut.data(), cut.size(), e);
        size_t markerEnd = r.rfind(kMarker) + kMarker.size();
        if (n >= markerEnd)
            EXPECT_TRUE(ok) << n;
        else
            EXPECT_FALSE(ok) << n;
    }
    // No begin line at all, a marker only, nothing.
    std::string junk = kMarker + "xyz";
    EXPECT_FALSE(CTraceReader::ParseRingBuffer(junk.data(), junk.size(), e));
    EXPECT_TRUE(e.empty());
    EXPECT_FALSE(CTraceReader::ParseRingBuffer(nullptr, 0, e));
    // Begin line but no marker: what is there comes back, result false.
    std::string noMarker = Entry("### Begin of RingBuffer. ###") + Entry("x") + "partial";
    EXPECT_FALSE(CTraceReader::ParseRingBuffer(noMarker.data(), noMarker.size(), e));
    EXPECT_EQ(Msgs(e), (std::vector<std::string>{"x"}));
    EXPECT_FALSE(CTraceReader::ReadRingBuffer("/nonexistent/ring", e));
}

TEST(CTraceReader, LogFileWithoutWrapInFileOrder)
{
    std::string log = Entry("one") + Entry("two");
    std::vector<std::string> l;
    bool wrapped = true;
    EXPECT_TRUE(CTraceReader::ParseLogFile(log.data(), log.size(), l, &wrapped));
    EXPECT_FALSE(wrapped);
    EXPECT_EQ(Msgs(l), (std::vector<std::string>{"one", "two"}));
    log += "2024-01-02 03:04";
    EXPECT_FALSE(CTraceReader::ParseLogFile(log.data(), log.size(), l));
    EXPECT_EQ(l.size(), 2u);
}

TEST(CTraceReader, LogFileAcrossWrap)
{
    std::string log = Entry("kept", "2024-01-01 00:00:00.000") +
                      Entry("------ WRAP ----- Cycle=2, CntInitEnd=10, CurrentByteCnt=10 (MaxCnt=100)",
                            "2024-01-01 00:00:09.000") +
                      Entry("newest1", "2024-01-01 00:00:09.000") + Entry("newest2", "2024-01-01 00:00:09.500") +
                      "d line\n" + Entry("old1", "2024-01-01 00:00:05.000") + Entry("old2", "2024-01-01 00:00:06.000");
    std::vector<std::string> l;
    bool wrapped = false;
    EXPECT_TRUE(CTraceReader::ParseLogFile(log.data(), log.size(), l, &wrapped));
    EXPECT_TRUE(wrapped);
    auto m = Msgs(l);
    ASSERT_EQ(m.size(), 6u);
    EXPECT_EQ(m[0], "kept");
    EXPECT_EQ(m[1], "old1");
    EXPECT_EQ(m[2], "old2");
    EXPECT_EQ(m[3].substr(0, 17), "------ WRAP -----");
    EXPECT_EQ(m[5], "newest2");

    // The boundary found by time when the old text starts on a line start.
    std::string aligned = Entry("------ WRAP ----- Cycle=1, CntInitEnd=0, CurrentByteCnt=0 (MaxCnt=100)",
                                "2024-01-01 00:00:09.000") +
                          Entry("new", "2024-01-01 00:00:09.000") + Entry("old", "2024-01-01 00:00:01.000");
    EXPECT_TRUE(CTraceReader::ParseLogFile(aligned.data(), aligned.size(), l));
    m = Msgs(l);
    ASSERT_EQ(m.size(), 3u);
    EXPECT_EQ(m[0], "old");
    EXPECT_EQ(m[2], "new");

    for (size_t n = 0; n <= log.size(); ++n) {
        std::string cut = log.substr(0, n);
        CTraceReader::ParseLogFile(cut.data(), cut.size(), l);
    }
}

TEST(CTraceReader, MessageOfHandlesBothHeaderForms)
{
    EXPECT_EQ(CTraceReader::MessageOf("2024-01-02 03:04:05.006 [0000ABCD]     1234 KB !kopd          text here"),
              "text here");
    EXPECT_EQ(CTraceReader::MessageOf("2024-01-02 03:04:05.006 [0000ABCD] kopd           leading blank"), " leading blank");
    EXPECT_EQ(CTraceReader::MessageOf("2024-01-02 03:04:05.006 [0000ABCD] averyverylongname text"), "text");
    EXPECT_EQ(CTraceReader::MessageOf("not an entry"), "not an entry");
    // Too short for a whole header: the line as it is.
    EXPECT_EQ(CTraceReader::MessageOf("2024-01-02 03:04:05.006 [0000"), "2024-01-02 03:04:05.006 [0000");
    EXPECT_EQ(CTraceReader::MessageOf("2024-01-02 03:04:05.006 [0000ABCD] kop"), "");
    EXPECT_FALSE(CTraceReader::IsEntryLine("2024-01-02", 10));
}

TEST(CTraceReader, ParseEntrySplitsColumnsAndLeavesOutDamagedOnes)
{
    const std::string t = "2024-01-02 03:04:05.678 ";
    struct Case {
        std::string line;
        bool isEntry;
        const char* thread;  // printed as %08X, or null
        long memoryKb;       // -1: none
        const char* name;    // null: none
        const char* text;
    } cases[] = {
        {t + "[0000ABCD]     1234 KB !kopd          hello", true, "0000ABCD", 1234, "kopd", "hello"},
        {t + "[DEADBEEF] averylongname1234 text", true, "DEADBEEF", -1, "averylongname1234", "text"},
        {t + "[DEADBEEF] kopd          plain", true, "DEADBEEF", -1, "kopd", "plain"},
        {t + "[XYZ00000]     12x4 KB !kopd          bad", true, nullptr, -1, "kopd", "bad"},
        {t + "[0000000", true, nullptr, -1, nullptr, "2024-01-02 03:04:05.678 [0000000"},
        {"continuation line", false, nullptr, -1, nullptr, "continuation line"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        CTraceReader::EntryColumns e = CTraceReader::ParseEntry(c.line);
        EXPECT_EQ(e.isEntry, c.isEntry);
        EXPECT_EQ(e.text, c.text);
        EXPECT_EQ(e.time.has_value(), c.isEntry);
        char hex[16] = "";
        if (e.thread)
            snprintf(hex, sizeof hex, "%08X", *e.thread);
        EXPECT_EQ(std::string(hex), c.thread ? c.thread : "");
        EXPECT_EQ(e.memoryKb ? static_cast<long>(*e.memoryKb) : -1L, c.memoryKb);
        EXPECT_EQ(e.name.value_or("<none>"), c.name ? c.name : "<none>");
    }
}
