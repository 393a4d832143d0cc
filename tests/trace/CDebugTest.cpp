#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <vector>

namespace {

const std::string kTime = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";
const std::string kThread = R"(\[[0-9A-F]{8}\])";
// "testprog" in 13 columns and the blank after them.
const std::string kName = "testprog      ";
const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

class CDebugTest : public testsupport::TraceEnv {};

} // namespace

// ---- Entry layout ---------------------------------------------------------------

TEST_F(CDebugTest, EntryHeaderWithAndWithoutMemoryColumn)
{
    auto d = Make();
    ASSERT_EQ(d->GetMemoryTracesFlag(), -1); // not configured counts as on
    char buf[128];
    int n = d->SetEntryHeader(buf, sizeof(buf), nullptr);
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    EXPECT_TRUE(std::regex_match(std::string(buf), std::regex(kTime + " " + kThread + R"( [ \d]{7}\d KB !)" + kName)))
        << buf;
    d->SetEntryHeader(buf, sizeof(buf), "averyveryverylongname");
    EXPECT_TRUE(std::regex_match(std::string(buf), std::regex(kTime + " " + kThread + R"( [ \d]{7}\d KB !averyveryverylongname )")))
        << buf;

    WriteConfig("a.ini", "[testprog]\nMemoryTracesFlag=0\n[EndOfFile]\n");
    auto e = Make();
    EXPECT_EQ(e->GetMemoryTracesFlag(), 0);
    e->SetEntryHeader(buf, sizeof(buf), nullptr);
    EXPECT_TRUE(std::regex_match(std::string(buf), std::regex(kTime + " " + kThread + " " + kName))) << buf;
    auto anon = std::make_unique<CDebug>();
    anon->SetEntryHeader(buf, sizeof(buf), nullptr);
    // Without a program name the column is blank.
    EXPECT_EQ(std::string(buf).substr(std::string(buf).size() - 15), "!              ");
}

TEST_F(CDebugTest, NewlineRulesAndCutAt1024InLogFile)
{
    Set("TR_LOG_FILE_MAX_SIZE", "1000000");
    auto d = Make();
    ASSERT_EQ(d->GetTarget(), 0u); // no ring configured: log file only
    d->PrintAlways("\n\nText after two newlines %d", 7);
    d->PrintAlways("\n");
    d->PrintAlways(3, "already ends\n");
    std::string exact(1024, 'a'), longer(1025, 'b');
    d->PrintAlways("%s", exact.c_str());
    d->PrintAlways("%s", longer.c_str());
    d->Print(0, "not written: target none");

    auto lines = Lines(LogPath());
    ASSERT_EQ(lines.size(), 5u);
    std::regex header("^" + kTime + " " + kThread + R"( [ \d]{7}\d KB !)" + kName);
    for (auto& l : lines)
        EXPECT_TRUE(std::regex_search(l, header)) << l;
    auto msg = Messages(lines);
    EXPECT_EQ(msg[0], "Text after two newlines 7");
    EXPECT_EQ(msg[1], "");       // header + one newline
    EXPECT_EQ(msg[2], "already ends");
    EXPECT_EQ(msg[3], exact);
    EXPECT_EQ(msg[4], std::string(1024, 'b'));
    // Nothing but a blank line after the header for the lone newline.
    std::string raw = testsupport::ReadFile(LogPath());
    EXPECT_EQ(raw.find("\n\n"), std::string::npos);
}

// ---- Log file wrap ------------------------------------------------------------------

TEST_F(CDebugTest, LogFileWrapsToStartBeforeInitDone)
{
    Set("TR_LOG_FILE_MAX_SIZE", "2000");
    auto d = Make();
    for (int i = 0; i < 40; ++i)
        d->PrintAlways("entry %03d padding padding padding", i);
    EXPECT_GE(d->GetLogWrapCycle(), 1u);
    std::string text = testsupport::ReadFile(LogPath());
    // The first wrap went to offset 0: the file starts with the WRAP line
    // of the latest cycle.
    auto lines = testsupport::SplitLines(text);
    ASSERT_FALSE(lines.empty());
    std::smatch m;
    ASSERT_TRUE(std::regex_search(lines[0], m,
                                  std::regex(R"(------ WRAP ----- Cycle=(\d+), CntInitEnd=0, CurrentByteCnt=0 \(MaxCnt=2000\)$)")))
        << lines[0];
    EXPECT_EQ(std::stoul(m[1]), d->GetLogWrapCycle());
    EXPECT_LE(text.size(), 2200u);

    std::vector<std::string> ordered;
    bool wrapped = false;
    CTraceReader::ReadLogFile(LogPath(), ordered, &wrapped);
    EXPECT_TRUE(wrapped);
    // The newest entry is last, in order after the wrap line.
    ASSERT_FALSE(ordered.empty());
    EXPECT_EQ(CTraceReader::MessageOf(ordered.back()), "entry 039 padding padding padding");
}

TEST_F(CDebugTest, LogFileWrapKeepsStartUpPartAfterInitDone)
{
    Set("TR_LOG_FILE_MAX_SIZE", "3000");
    auto d = Make();
    d->PrintAlways("startup line");
    d->SetApplInitDone();
    EXPECT_TRUE(d->IsApplInitDone());
    std::string head = testsupport::ReadFile(LogPath());
    for (int i = 0; i < 60; ++i)
        d->PrintAlways("entry %03d padding padding padding", i);
    std::string text = testsupport::ReadFile(LogPath());
    ASSERT_GT(text.size(), head.size());
    EXPECT_EQ(text.substr(0, head.size()), head); // kept
    auto after = testsupport::SplitLines(text.substr(head.size()));
    ASSERT_FALSE(after.empty());
    std::string expect = "CntInitEnd=" + std::to_string(head.size()) + ", CurrentByteCnt=" + std::to_string(head.size());
    EXPECT_NE(after[0].find("------ WRAP ----- Cycle="), std::string::npos) << after[0];
    EXPECT_NE(after[0].find(expect), std::string::npos) << after[0];

    std::vector<std::string> ordered;
    CTraceReader::ReadLogFile(LogPath(), ordered);
    auto msg = Messages(ordered);
    EXPECT_EQ(msg.front(), "startup line");
    EXPECT_EQ(msg.back(), "entry 059 padding padding padding");
}

// ---- Ring buffer ----------------------------------------------------------------------

TEST_F(CDebugTest, InitCreatesInitialRingWithHeaderAndMarkers)
{
    auto d = MakeTracing();
    EXPECT_TRUE(d->IsEnabled());
    EXPECT_EQ(d->GetTarget(), 2u);
    EXPECT_EQ(d->GetRingBufferSize(), 4u * 256 * kPage);
    EXPECT_EQ(std::string(d->GetInitialRingPath()), m_Dir.Sub("log.testprog_i"));
    EXPECT_EQ(std::string(d->GetActiveRingPath()), m_Dir.Sub("log.testprog_a"));
    d->Print(3, "\nCDebugTest          : visible %d", 1);
    d->Print(4, "invisible");

    std::string ring = testsupport::ReadFile(d->GetInitialRingPath());
    ASSERT_EQ(ring.size(), d->GetRingBufferSize());
    auto lines = testsupport::SplitLines(ring);
    auto msg = Messages(lines);
    EXPECT_EQ(msg[0], "Tarvis Environment:");
    EXPECT_TRUE(Contains(msg, "TR_LOG_RINGBUF_WEIGHT=1"));
    EXPECT_TRUE(Contains(msg, "TR_OS=NotSet") || getenv("TR_OS"));
    EXPECT_TRUE(Contains(msg, "TR_LOG_RINGBUF_WEIGHT_TESTPROG=NotSet"));
    EXPECT_TRUE(Contains(msg, "Trace Level                : 3"));
    EXPECT_TRUE(Contains(msg, "Ring Buffer Directory      : " + m_Dir.Path()));
    EXPECT_TRUE(Contains(msg, "# End of header."));
    size_t begin = ring.find("### Begin of RingBuffer. ###\n");
    ASSERT_NE(begin, std::string::npos);
    // The begin line starts on a 1 KiB boundary, after a pre-fill line.
    size_t lineStart = ring.rfind('\n', begin) + 1;
    EXPECT_EQ(lineStart % 1024, 0u);
    EXPECT_NE(ring.find(std::string(100, '_')), std::string::npos);

    std::vector<std::string> entries;
    bool wrapped = true;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries, &wrapped));
    EXPECT_FALSE(wrapped);
    auto em = Messages(entries);
    ASSERT_EQ(em.size(), 2u);
    EXPECT_EQ(em[0], "### Start of initialization. ###");
    EXPECT_EQ(em[1], "CDebugTest          : visible 1");
    // The marker follows the newest entry.
    size_t marker = ring.find("## TRACE-END ##\n", lineStart);
    ASSERT_NE(marker, std::string::npos);
    EXPECT_NE(ring.rfind("visible 1\n", marker), std::string::npos);

    // The log file carries no header by default.
    EXPECT_EQ(testsupport::ReadFile(LogPath()).find("Tarvis Environment:"), std::string::npos);
}

TEST_F(CDebugTest, RingWrapFillsWithDotsAndRenewsHeader)
{
    auto d = MakeTracing();
    std::string ring = m_Dir.Sub("small_ring");
    ASSERT_TRUE(d->InitRingBuffer(ring.c_str(), 16384));
    EXPECT_EQ(d->GetRingBufferSize(), 16384u);
    for (int i = 0; i < 300; ++i)
        d->Print(1, "wrap entry %04d", i);
    EXPECT_GE(d->GetRingWrapCount(), 1u);
    std::string text = testsupport::ReadFile(ring);
    ASSERT_EQ(text.size(), 16384u);
    EXPECT_EQ(text.back(), '.');
    EXPECT_EQ(CTraceReader::MessageOf(testsupport::SplitLines(text)[0]), "Tarvis Environment:");

    std::vector<std::string> entries;
    bool wrapped = false;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(ring, entries, &wrapped));
    EXPECT_TRUE(wrapped);
    auto msg = Messages(entries);
    ASSERT_GT(msg.size(), 20u);
    EXPECT_EQ(msg.back(), "wrap entry 0299");
    // Consecutive and increasing all the way through.
    int first = std::stoi(msg.front().substr(11));
    for (size_t i = 0; i < msg.size(); ++i)
        EXPECT_EQ(msg[i], "wrap entry " + std::string(4 - std::to_string(first + i).size(), '0') + std::to_string(first + i));
}

TEST_F(CDebugTest, EntryFillingRingUpTo16BytesBeforeEndDoesNotWrap)
{
    auto d = MakeTracing();
    d->SetSysLogFunction(nullptr);
    d->SetSysLogFunction([](int, const char*) {});
    std::string ring = m_Dir.Sub("exact_ring");
    ASSERT_TRUE(d->InitRingBuffer(ring.c_str(), 16384));
    // Find the current position: the end marker after the begin line.
    auto pos = [&]() {
        std::string t = testsupport::ReadFile(ring);
        size_t b = t.find("### Begin of RingBuffer. ###\n");
        return t.find("## TRACE-END ##\n", b);
    };
    size_t p = pos();
    ASSERT_NE(p, std::string::npos);
    char hdr[128];
    size_t h = static_cast<size_t>(d->SetEntryHeader(hdr, sizeof(hdr), nullptr));
    // Fill with entries of 1000 bytes until less than 1100 are left.
    while (16384 - p - 16 > 1100) {
        d->Print(1, "%s", std::string(1000 - h - 1, 'f').c_str());
        p = pos();
    }
    size_t room = 16384 - 16 - p;
    // Memory column figures may change length: recompute the header just before.
    h = static_cast<size_t>(d->SetEntryHeader(hdr, sizeof(hdr), nullptr));
    d->Print(1, "%s", std::string(room - h - 1, 'x').c_str());
    EXPECT_EQ(d->GetRingWrapCount(), 0u);
    std::string t = testsupport::ReadFile(ring);
    EXPECT_EQ(t.substr(16384 - 16), "## TRACE-END ##\n");
    // One more byte wraps.
    d->Print(1, "y");
    EXPECT_EQ(d->GetRingWrapCount(), 1u);
    t = testsupport::ReadFile(ring);
    EXPECT_EQ(t.substr(16384 - 16), std::string(16, '.'));
}

TEST_F(CDebugTest, OversizeEntriesInRing)
{
    auto d = MakeTracing();
    std::string big(3000, 'z');
    // Small ring (a tenth is 1638): the message is cut with the warning.
    std::string small = m_Dir.Sub("small");
    ASSERT_TRUE(d->InitRingBuffer(small.c_str(), 16384));
    d->Print(1, "%s", big.c_str());
    std::vector<std::string> entries;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(small, entries));
    auto msg = Messages(entries);
    ASSERT_EQ(msg.size(), 3u);
    EXPECT_EQ(msg[1], std::string(1024, 'z'));
    EXPECT_EQ(msg[2], "## WARNING: TRACE-SIZE TOO BIG: Output Truncated!");
    // Larger ring: kept whole.
    std::string large = m_Dir.Sub("large");
    ASSERT_TRUE(d->InitRingBuffer(large.c_str(), 65536));
    d->Print(1, "%s", big.c_str());
    d->Print(1, "%s", std::string(1024, 'q').c_str());
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(large, entries));
    msg = Messages(entries);
    ASSERT_EQ(msg.size(), 3u);
    EXPECT_EQ(msg[1], big);
    EXPECT_EQ(msg[2], std::string(1024, 'q'));
}

TEST_F(CDebugTest, SetApplInitDoneCompressesInitialRingAndStartsActive)
{
    if (access("/usr/bin/gzip", X_OK) != 0 && access("/bin/gzip", X_OK) != 0)
        GTEST_SKIP() << "gzip is not installed";
    auto d = MakeTracing();
    uint64_t initial = d->GetRingBufferSize();
    d->Print(1, "during start-up");
    d->SetApplInitDone();
    EXPECT_TRUE(d->IsEnabled());
    EXPECT_EQ(d->GetTarget(), 2u);
    EXPECT_EQ(d->GetRingBufferSize(), initial / 4);
    EXPECT_FALSE(testsupport::FileExists(d->GetInitialRingPath()));
    std::string gz = std::string(d->GetInitialRingPath()) + ".gz";
    ASSERT_TRUE(testsupport::FileExists(gz));
    d->Print(1, "after start-up");

    std::string content;
    ASSERT_TRUE(CTraceReader::ReadGzipFile(gz, content));
    std::vector<std::string> entries;
    ASSERT_TRUE(CTraceReader::ParseRingBuffer(content.data(), content.size(), entries));
    auto msg = Messages(entries);
    ASSERT_EQ(msg.size(), 3u);
    EXPECT_EQ(msg[1], "during start-up");
    EXPECT_EQ(msg[2], "### End of initialization. ###");

    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetActiveRingPath(), entries));
    msg = Messages(entries);
    ASSERT_EQ(msg.size(), 2u);
    EXPECT_EQ(msg[1], "after start-up");
    auto head = Messages(testsupport::SplitLines(testsupport::ReadFile(d->GetActiveRingPath())));
    EXPECT_TRUE(Contains(head, "Application Init Done      : 0"));
    EXPECT_FALSE(CTraceReader::ReadGzipFile(m_Dir.Sub("nothing.gz"), content));
    EXPECT_FALSE(CTraceReader::ReadGzipFile("it's.gz", content));
}

TEST_F(CDebugTest, SetMainParamsWritesCommandLineToBothOutputs)
{
    auto d = MakeTracing();
    char a0[] = "kopd", a1[] = "-n";
    char* argv[] = {a0, a1, nullptr};
    d->SetMainParams(2, argv);
    auto log = Messages(Lines(LogPath()));
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0], "testprog Command Line Options:");
    EXPECT_EQ(log[1], "argv[0] = \"kopd\"");
    EXPECT_EQ(log[2], "argv[1] = \"-n\"");
    std::vector<std::string> entries;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries));
    auto msg = Messages(entries);
    ASSERT_EQ(msg.size(), 4u);
    EXPECT_EQ(msg[3], "argv[1] = \"-n\"");
    // A header written now includes the command line.
    d->WriteLogHeader(1);
    EXPECT_TRUE(Contains(Messages(Lines(LogPath())), "Process PID                : " + std::to_string(getpid())));
}

TEST_F(CDebugTest, ForceMaxDebugSilencesAndRestores)
{
    auto d = MakeTracing("4");
    EXPECT_TRUE(d->ForceMaxDebug(false));
    EXPECT_FALSE(d->IsEnabled());
    EXPECT_EQ(d->GetLevel(), 0u);
    d->Print(1, "silenced");
    d->Print(0, "level zero still goes out");
    EXPECT_TRUE(d->ForceMaxDebug(true));
    EXPECT_TRUE(d->IsEnabled());
    EXPECT_EQ(d->GetLevel(), 4u);
    d->Print(4, "back");
    std::vector<std::string> entries;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries));
    auto msg = Messages(entries);
    EXPECT_FALSE(Contains(msg, "silenced"));
    EXPECT_TRUE(Contains(msg, "level zero still goes out"));
    EXPECT_EQ(msg.back(), "back");
}

TEST_F(CDebugTest, ClientPrintUsesCallersName)
{
    auto d = MakeTracing();
    auto call = [&](const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        d->ClientPrintV(fmt, ap, "client");
        va_end(ap);
    };
    call("\nfrom %s", "module");
    std::vector<std::string> entries;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries));
    EXPECT_TRUE(std::regex_search(entries.back(), std::regex(R"( KB !client        from module$)"))) << entries.back();
}

// ---- Configuration ---------------------------------------------------------------------

TEST_F(CDebugTest, EmptyConfigDirectoryKeepsTracingOffDespiteEnvironment)
{
    // A first Init takes the trace directory from the environment; after
    // that, with a configuration directory holding no .ini file, Init takes
    // nothing at all (a fresh object would write its log to "/log.NAME").
    auto d = Make();
    testsupport::TempDir elsewhere;
    Set("TR_LOG_RINGBUF_DIR", elsewhere.Path().c_str());
    WriteConfig("readme.txt", "not an ini\n");
    Set("TR_LOG_DEBUG_LEVEL", "5");
    Set("TraceFileLimit", "1");
    Set("TR_LOG_RINGBUF_WEIGHT", "1");
    d->Init("testprog");
    EXPECT_FALSE(d->IsEnabled());
    EXPECT_EQ(d->GetLevel(), 0u);
    EXPECT_EQ(d->GetTarget(), 0u);
    // The directory was not taken from the environment.
    EXPECT_EQ(std::string(d->GetTraceDirectory()), m_Dir.Path());
    EXPECT_FALSE(testsupport::FileExists(elsewhere.Sub("log.testprog")));
}

TEST_F(CDebugTest, MissingConfigDirectoryUsesEnvironment)
{
    auto d = MakeTracing("5");
    EXPECT_TRUE(d->IsEnabled());
    EXPECT_EQ(d->GetLevel(), 5u);
    EXPECT_EQ(d->GetSavedLevel(), 5u);
    EXPECT_EQ(d->GetLogMaxSize(), 51200u);
    EXPECT_EQ(d->GetNoHeaderFlag(), 1u);
}

TEST_F(CDebugTest, LevelWithoutRingSizeLeavesTracingOff)
{
    Set("TR_LOG_DEBUG_LEVEL", "3");
    auto d = Make();
    EXPECT_FALSE(d->IsEnabled());
    EXPECT_EQ(d->GetLevel(), 0u);
    EXPECT_TRUE(testsupport::FileExists(LogPath()));
}

TEST_F(CDebugTest, RingDirectoryOverridesFileDirectory)
{
    testsupport::TempDir a, b;
    Set("TR_LOG_FILE_DIR", a.Path().c_str());
    Set("TR_LOG_RINGBUF_DIR", b.Path().c_str());
    auto d = MakeTracing();
    EXPECT_EQ(std::string(d->GetTraceDirectory()), b.Path());
    EXPECT_TRUE(testsupport::FileExists(b.Sub("log.testprog")));
    EXPECT_TRUE(testsupport::FileExists(b.Sub("log.testprog_i")));
    EXPECT_FALSE(testsupport::FileExists(a.Sub("log.testprog")));
}

TEST_F(CDebugTest, FileDirectoryAloneGivesWayToIniDirectory)
{
    testsupport::TempDir a, ini;
    m_Env.push_back(std::make_unique<testsupport::ScopedEnv>("TR_LOG_RINGBUF_DIR", nullptr));
    Set("TR_LOG_FILE_DIR", a.Path().c_str());
    WriteConfig("p.ini", "[TESTPROG]\nRingBufferDirectory=" + ini.Path() + "\n[EndOfFile]\n");
    auto d = Make();
    EXPECT_EQ(std::string(d->GetTraceDirectory()), ini.Path());
    EXPECT_TRUE(testsupport::FileExists(ini.Sub("log.testprog")));
}

TEST_F(CDebugTest, IniValuesSubstringMatchAndNumberBases)
{
    WriteConfig("a.ini", "[other]\nFileDebugLevel=1\n[TestProg]\nMaxFileDebugLevel=7\nFileDebugLevel=3\n"
                           "TraceFlags=0x10\nRingBufferSizeFactor=5\nRingBufferSizeWeight=010\nNoHeaderToStderr=0\n"
                           "[endoffile]\n");
    auto d = Make();
    EXPECT_EQ(d->GetLevel(), 7u);
    EXPECT_EQ(d->GetIniLevel(), 7u);
    EXPECT_EQ(d->GetTraceFlags(), 16u);
    EXPECT_EQ(d->GetRingFactor(), 2u); // clamped
    EXPECT_EQ(d->GetRingWeight(), 8u);
    EXPECT_EQ(d->GetNoHeaderFlag(), 0u);
    EXPECT_TRUE(d->IsEnabled());
    EXPECT_EQ(d->GetRingBufferSize(), 4u * 2 * 8 * 256 * kPage);
    // With the header flag 0 the log file carries the header.
    auto log = Messages(Lines(LogPath()));
    EXPECT_TRUE(Contains(log, "RingBufferSizeFactor       : 5"));
    EXPECT_TRUE(Contains(log, "Ring Buffer Factor         : 2"));
    EXPECT_TRUE(Contains(log, "No Header to LogFile       : 0"));

    WriteConfig("a.ini", "[testprog]\nFileDebugLevel=0x10\n[EndOfFile]\n");
    EXPECT_EQ(Make()->GetIniLevel(), 16u);
    WriteConfig("a.ini", "[testprog]\nFileDebugLevel=010\n[EndOfFile]\n");
    EXPECT_EQ(Make()->GetIniLevel(), 8u);
}

TEST_F(CDebugTest, EnvironmentWinsOverFileAndFileOverDefault)
{
    WriteConfig("a.ini", "[testprog]\nFileDebugLevel=2\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\n[EndOfFile]\n");
    EXPECT_EQ(Make()->GetLevel(), 2u);
    Set("TR_LOG_DEBUG_LEVEL", "6");
    Set("TR_LOG_FILE_MAX_SIZE", "9999");
    Set("TR_LOG_NOHDR_TOSDTERR", "0");
    Set("TR_LOG_DYNAMIC_UPDATE", "0");
    auto d = Make();
    EXPECT_EQ(d->GetLevel(), 6u);
    EXPECT_EQ(d->GetLogMaxSize(), 9999u);
    EXPECT_EQ(d->GetNoHeaderFlag(), 0u);
    EXPECT_EQ(d->GetRingWeight(), 1u);
    // The per-program weight wins over everything when tracing is on.
    Set("TR_LOG_RINGBUF_WEIGHT", "2");
    Set("TR_LOG_RINGBUF_WEIGHT_TESTPROG", "3");
    EXPECT_EQ(Make()->GetRingWeight(), 3u);
}

TEST_F(CDebugTest, FileWithoutEndOfFileIsIgnoredAndFirstFileWins)
{
    WriteConfig("a.ini", "[testprog]\nFileDebugLevel=4\n");
    WriteConfig("b.ini", "[testprog]\nFileDebugLevel=5\n[EndOfFile]\n[x]\n");
    WriteConfig("c.ini", "[testprog]\nFileDebugLevel=6\n[EndOfFile]\nFileDebugLevel=9\n");
    WriteConfig("d.ini", "[testprog]\nFileDebugLevel=7\n[EndOfFile]\n");
    auto d = Make();
    EXPECT_EQ(d->GetIniLevel(), 6u);
}

TEST_F(CDebugTest, GlobalFileSetsDynamicUpdate)
{
    WriteConfig("global_trace.ini", "[GlobalDebugSettings]\nDynamicUpdate=30\n[EndOfFile]\n");
    EXPECT_EQ(Make()->GetDynamicUpdateInterval(), 30u);
    Set("TR_LOG_DYNAMIC_UPDATE", "7");
    EXPECT_EQ(Make()->GetDynamicUpdateInterval(), 7u);
}

TEST_F(CDebugTest, DynamicUpdateRereadsLevelOfChangedFile)
{
    std::string file = m_ConfigDir + "/p.ini";
    testsupport::WriteFile(file, "[testprog]\nFileDebugLevel=2\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\n"
                                 "TraceFlags=1\n[EndOfFile]\n");
    // A one-second interval; the check runs again as soon as the clock says
    // it is due, and a clock that went back forces it.
    Set("TR_LOG_DYNAMIC_UPDATE", "1");
    auto d = Make();
    ASSERT_EQ(d->GetLevel(), 2u);
    testsupport::WriteFile(file, "[testprog]\nFileDebugLevel=5\nTraceFlags=3\nMemoryTracesFlag=0\n[EndOfFile]\n");
    struct timeval later[2];
    gettimeofday(&later[0], nullptr);
    later[0].tv_sec += 100;
    later[1] = later[0];
    ASSERT_EQ(utimes(file.c_str(), later), 0);
    // Wait until the interval has passed (at most a few seconds).
    for (int i = 0; i < 300 && d->GetLevel() != 5u; ++i) {
        d->Print(1, "poll");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(d->GetLevel(), 5u);
    EXPECT_EQ(d->GetSavedLevel(), 5u);
    EXPECT_EQ(d->GetTraceFlags(), 3u);
    EXPECT_EQ(d->GetMemoryTracesFlag(), 0);
    EXPECT_EQ(d->GetRingBufferSize(), 4u * 256 * kPage); // unchanged
}

TEST_F(CDebugTest, BuildAppVarNameAndStringToLower)
{
    char buf[48] = "TR_LOG_RINGBUF_WEIGHT";
    CDebug::BuildAppVarName(buf, sizeof(buf), "kopd");
    EXPECT_STREQ(buf, "TR_LOG_RINGBUF_WEIGHT_KOPD");
    char small[10] = "ABCDEF";
    CDebug::BuildAppVarName(small, sizeof(small), "xyz");
    EXPECT_STREQ(small, "ABCDEF_XY");
    char same[10] = "A";
    CDebug::BuildAppVarName(same, sizeof(same), "");
    CDebug::BuildAppVarName(same, sizeof(same), nullptr);
    EXPECT_STREQ(same, "A");
    char text[] = "KoPd-1";
    CDebug::StringToLower(text);
    EXPECT_STREQ(text, "kopd-1");
    CDebug::StringToLower(nullptr);
}

TEST_F(CDebugTest, UnwritableDirectoryGoesOnWithoutFiles)
{
    std::string logged;
    static std::string* sink = nullptr;
    sink = &logged;
    Set("TR_LOG_RINGBUF_DIR", m_Dir.Sub("no/such/dir").c_str());
    Set("TR_LOG_DEBUG_LEVEL", "3");
    Set("TraceFileLimit", "1");
    Set("TR_LOG_RINGBUF_WEIGHT", "1");
    auto d = std::make_unique<CDebug>();
    d->SetSysLogFunction([](int, const char* t) { *sink += t; });
    d->SetConfigDirectory(m_ConfigDir.c_str());
    EXPECT_FALSE(d->Init("testprog"));
    EXPECT_FALSE(d->IsEnabled());
    EXPECT_EQ(d->GetTarget(), 0u);
    EXPECT_EQ(d->GetLevel(), 0u);
    EXPECT_EQ(logged, "ERROR: Error during opening " + m_Dir.Sub("no/such/dir") + "/log.testprog --> proceed without it\n");
    d->Print(0, "goes nowhere");
    d->PrintAlways("goes nowhere");
    sink = nullptr;
}

// ---- Concurrency --------------------------------------------------------------------------

TEST_F(CDebugTest, ManyThreadsIntoWrappingRingWriteWholeEntries)
{
    auto d = MakeTracing();
    std::string ring = m_Dir.Sub("stress_ring");
    ASSERT_TRUE(d->InitRingBuffer(ring.c_str(), 32768));
    constexpr int kThreads = 8, kPerThread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                if (i % 500 == 0)
                    d->PrintAlways("thread %d seq %d always", t, i);
                else
                    d->Print(2, "thread %d seq %d %s end", t, i, std::string(static_cast<size_t>(i % 37), '#').c_str());
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_GT(d->GetRingWrapCount(), 10u);

    std::vector<std::string> entries;
    bool wrapped = false;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(ring, entries, &wrapped));
    ASSERT_TRUE(wrapped);
    int last[kThreads];
    std::fill(std::begin(last), std::end(last), -1);
    std::regex whole(R"(^thread (\d) seq (\d+) (#*) end$|^thread (\d) seq (\d+) always$)");
    size_t count = 0;
    for (auto& e : entries) {
        std::string m = CTraceReader::MessageOf(e);
        std::smatch sm;
        ASSERT_TRUE(CTraceReader::IsEntryLine(e.data(), e.size())) << e;
        ASSERT_TRUE(std::regex_match(m, sm, whole)) << m;
        int t = std::stoi(sm[1].matched ? sm[1].str() : sm[4].str());
        int seq = std::stoi(sm[2].matched ? sm[2].str() : sm[5].str());
        if (sm[1].matched) {
            EXPECT_EQ(sm[3].length(), seq % 37);
        }
        EXPECT_GT(seq, last[t]) << "thread " << t;
        last[t] = seq;
        ++count;
    }
    EXPECT_GT(count, 100u);
    // The thread that wrote last has its final entry as the newest one.
    std::smatch sm;
    std::string newest = CTraceReader::MessageOf(entries.back());
    ASSERT_TRUE(std::regex_match(newest, sm, whole));
    EXPECT_EQ(std::stoi(sm[2].str()), kPerThread - 1);
    // The log file got the always-entries whole as well.
    for (auto& l : Lines(LogPath()))
        EXPECT_TRUE(std::regex_match(CTraceReader::MessageOf(l), std::regex(R"(thread \d seq \d+ always)"))) << l;
}

TEST_F(CDebugTest, ReentrantLockAllowsNestedEntryFromSameThread)
{
    auto d = MakeTracing();
    // WriteLogHeader takes the lock and calls the outputs that the wrap
    // path takes it again from; a second thread must still get through.
    std::thread other([&] {
        for (int i = 0; i < 200; ++i)
            d->Print(1, "other %d", i);
    });
    for (int i = 0; i < 20; ++i)
        d->WriteLogHeader(2);
    other.join();
    std::vector<std::string> entries;
    EXPECT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries));
    EXPECT_TRUE(Contains(Messages(entries), "other 199"));
    for (auto& e : entries)
        EXPECT_TRUE(CTraceReader::IsEntryLine(e.data(), e.size())) << e;
}
