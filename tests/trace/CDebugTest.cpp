// The trace object end to end: entry layout, log file and ring contents, configuration.
#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include "support/TraceEnv.h"

#include <gtest/gtest.h>

#include <regex>
#include <sys/time.h>
#include <tuple>

using testsupport::ReadFile;
using testsupport::SplitLines;
using Msgs = std::vector<std::string>;

namespace {

const std::string kTime = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";
const std::string kThread = R"(\[[0-9A-F]{8}\])";
const std::string kMemory = R"( [ \d]{7}\d KB !)";
const std::string kName = "testprog      ";  // in 13 columns and the blank after them
const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));

class CDebugTest : public testsupport::TraceEnv {
protected:
    static std::string Header(CDebug& d)
    {
        char buf[128];
        const int n = d.SetEntryHeader(buf, sizeof(buf), nullptr);
        EXPECT_EQ(n, static_cast<int>(strlen(buf)));
        return buf;
    }
};

} // namespace

TEST_F(CDebugTest, NewlineRulesAndCutAt1024InLogFile)
{
    Set("TR_LOG_FILE_MAX_SIZE", "1000000");
    auto d = Make();
    ASSERT_EQ(d->GetTarget(), 0u);  // no ring configured: log file only
    d->PrintAlways("\n\nText after two newlines %d", 7);
    d->PrintAlways("\n");
    d->PrintAlways(3, "already ends\n");
    d->PrintAlways("%s", std::string(1024, 'a').c_str());
    d->PrintAlways("%s", std::string(1025, 'b').c_str());
    d->Print(0, "not written: target none");
    d->PrintAlways("ab%ccd", 0);  // the entry ends at the NUL, newline included
    auto lines = Lines(LogPath());
    for (auto& l : lines)
        EXPECT_TRUE(std::regex_search(l, std::regex("^" + kTime + " " + kThread + kMemory + kName))) << l;
    EXPECT_EQ(Messages(lines), (Msgs{"Text after two newlines 7", "", "already ends", std::string(1024, 'a'),
                                     std::string(1024, 'b'), "ab"}));
    const std::string text = ReadFile(LogPath());
    EXPECT_EQ(text.find("\n\n"), std::string::npos);
    EXPECT_EQ(text.find('\0'), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 3), " ab");
}

TEST_F(CDebugTest, LogFileWrapsToStartOrBehindTheStartUpPart)
{
    for (bool initDone : {false, true}) {
        SCOPED_TRACE(initDone ? "after init done" : "before init done");
        Set("TR_LOG_FILE_MAX_SIZE", "3000");
        testsupport::RemoveTree(LogPath());
        auto d = Make();
        d->PrintAlways("startup line");
        if (initDone)
            d->SetApplInitDone();
        const std::string head = initDone ? ReadFile(LogPath()) : "";
        for (int i = 0; i < 60; ++i)
            d->PrintAlways("entry %03d padding padding padding", i);
        EXPECT_GE(d->GetLogWrapCycle(), 1u);
        std::string text = ReadFile(LogPath());
        ASSERT_GT(text.size(), head.size());
        EXPECT_LE(text.size(), 3200u);
        EXPECT_EQ(text.substr(0, head.size()), head);  // the start-up part is kept
        auto after = SplitLines(text.substr(head.size()));
        ASSERT_FALSE(after.empty());
        const std::string at = std::to_string(head.size());
        EXPECT_TRUE(std::regex_search(after[0], std::regex("------ WRAP ----- Cycle=" +
                                                           std::to_string(d->GetLogWrapCycle()) + ", CntInitEnd=" +
                                                           at + ", CurrentByteCnt=" + at + R"( \(MaxCnt=3000\)$)")))
            << after[0];
        Msgs ordered;
        bool wrapped = false;
        CTraceReader::ReadLogFile(LogPath(), ordered, &wrapped);
        EXPECT_TRUE(wrapped);
        auto msg = Messages(ordered);
        ASSERT_FALSE(msg.empty());
        EXPECT_EQ(msg.front() == "startup line", initDone);
        EXPECT_EQ(msg.back(), "entry 059 padding padding padding");
    }
}

// The initial ring (header, pre-fill, begin line on a 1 KiB boundary, entries, end marker),
// compressed at the end of start-up; an active ring of a quarter of its size follows.
TEST_F(CDebugTest, InitialRingThenCompressedAtInitDoneAndActiveRing)
{
    auto d = MakeTracing();
    EXPECT_EQ(d->GetRingBufferSize(), 4u * 256 * kPage);
    d->Print(3, "\nCDebugTest          : visible %d", 1);
    d->Print(4, "invisible");
    std::string ring = ReadFile(d->GetInitialRingPath());
    ASSERT_EQ(ring.size(), d->GetRingBufferSize());
    auto msg = Messages(SplitLines(ring));
    EXPECT_EQ(msg[0], "Tarvis Environment:");
    for (const std::string& line : Msgs{"TR_LOG_RINGBUF_WEIGHT=1", "TR_LOG_RINGBUF_WEIGHT_TESTPROG=NotSet",
                             "Trace Level                : 3", "# End of header.",
                             "Ring Buffer Directory      : " + m_Dir.Path()})
        EXPECT_TRUE(Contains(msg, line)) << line;
    size_t begin = ring.find("### Begin of RingBuffer. ###\n");
    ASSERT_NE(begin, std::string::npos);
    size_t lineStart = ring.rfind('\n', begin) + 1;
    EXPECT_EQ(lineStart % 1024, 0u);
    EXPECT_NE(ring.find(std::string(100, '_')), std::string::npos);
    EXPECT_EQ(RingMessages(d->GetInitialRingPath()),
              (Msgs{"### Start of initialization. ###", "CDebugTest          : visible 1"}));
    size_t marker = ring.find("## TRACE-END ##\n", lineStart);  // behind the newest entry
    ASSERT_NE(marker, std::string::npos);
    EXPECT_EQ(ring.rfind("visible 1\n", marker), marker - 10);
    EXPECT_EQ(ReadFile(LogPath()).find("Tarvis Environment:"), std::string::npos);  // no header by default

    if (access("/usr/bin/gzip", X_OK) != 0 && access("/bin/gzip", X_OK) != 0)
        GTEST_SKIP() << "gzip is not installed";
    d->SetApplInitDone();
    EXPECT_EQ(d->GetRingBufferSize(), 256u * kPage);
    EXPECT_FALSE(testsupport::FileExists(d->GetInitialRingPath()));
    d->Print(1, "after start-up");
    std::string content;
    ASSERT_TRUE(CTraceReader::ReadGzipFile(std::string(d->GetInitialRingPath()) + ".gz", content));
    Msgs entries;
    ASSERT_TRUE(CTraceReader::ParseRingBuffer(content.data(), content.size(), entries));
    EXPECT_EQ(Messages(entries), (Msgs{"### Start of initialization. ###", "CDebugTest          : visible 1",
                                       "### End of initialization. ###"}));
    EXPECT_EQ(RingMessages(d->GetActiveRingPath()), (Msgs{"### Start of initialization. ###", "after start-up"}));
    EXPECT_TRUE(Contains(Messages(Lines(d->GetActiveRingPath())), "Application Init Done      : 0"));
    EXPECT_FALSE(CTraceReader::ReadGzipFile(m_Dir.Sub("nothing.gz"), content) ||
                 CTraceReader::ReadGzipFile("it's.gz", content));
}

// Small rings: the wrap (dot fill, renewed header), an entry ending 16 bytes before the end,
// entries over a tenth of the ring cut to 1024 characters; the file is whole 1024-byte lines.
TEST_F(CDebugTest, SmallRingsWrapFillToTheirEndAndCutOversizeEntries)
{
    auto d = MakeTracing();
    const size_t kLen = 16100;
    std::string ring = m_Dir.Sub("small_ring");
    ASSERT_TRUE(d->InitRingBuffer(ring.c_str(), kLen));
    EXPECT_EQ(d->GetRingBufferSize(), kLen);
    EXPECT_EQ(ReadFile(ring).size(), 16384u);
    auto pos = [&] {  // the end marker after the begin line
        std::string t = ReadFile(ring);
        return t.find("## TRACE-END ##\n", t.find("### Begin of RingBuffer. ###\n"));
    };
    size_t p = pos();
    ASSERT_NE(p, std::string::npos);
    while (kLen - p - 16 > 1100) {  // entries of 1000 bytes until less than 1100 are left
        d->Print(1, "%s", std::string(1000 - Header(*d).size() - 1, 'f').c_str());
        p = pos();
    }
    // The memory column may change its length: the header just before.
    d->Print(1, "%s", std::string(kLen - 16 - p - Header(*d).size() - 1, 'x').c_str());
    EXPECT_EQ(d->GetRingWrapCount(), 0u);
    EXPECT_EQ(ReadFile(ring).substr(kLen - 16, 16), "## TRACE-END ##\n");
    d->Print(1, "y");  // one more byte wraps
    EXPECT_EQ(d->GetRingWrapCount(), 1u);
    EXPECT_EQ(ReadFile(ring).substr(kLen - 16, 16), std::string(16, '.'));
    EXPECT_EQ(CTraceReader::MessageOf(SplitLines(ReadFile(ring))[0]), "Tarvis Environment:");
    EXPECT_EQ(RingMessages(ring).back(), "y");

    std::string big(3000, 'z');
    for (uint64_t size : {16384, 65536}) {  // a tenth of the first is 1638
        ring = m_Dir.Sub("ring" + std::to_string(size));
        ASSERT_TRUE(d->InitRingBuffer(ring.c_str(), size));
        d->Print(1, "%s", big.c_str());
        d->Print(1, "%s", std::string(1024, 'q').c_str());
        const Msgs cut = {"### Start of initialization. ###", std::string(1024, 'z'),
                          "## WARNING: TRACE-SIZE TOO BIG: Output Truncated!", std::string(1024, 'q')};
        EXPECT_EQ(RingMessages(ring), size == 16384 ? cut : (Msgs{cut[0], big, cut[3]}));
    }
}

TEST_F(CDebugTest, CommandLineCallerNamesAndForcedSilence)
{
    auto d = MakeTracing("4");
    char a0[] = "kopd", a1[] = "-n";
    char* argv[] = {a0, a1, nullptr};
    d->SetMainParams(2, argv);
    const Msgs cmd = {"testprog Command Line Options:", "argv[0] = \"kopd\"", "argv[1] = \"-n\""};
    EXPECT_EQ(Messages(Lines(LogPath())), cmd);
    ClientPrint(*d, "client", "\nfrom %s", "module");
    Msgs entries;
    ASSERT_TRUE(CTraceReader::ReadRingBuffer(d->GetInitialRingPath(), entries));
    EXPECT_TRUE(std::regex_search(entries.back(), std::regex(" KB !client        from module$"))) << entries.back();
    EXPECT_TRUE(d->ForceMaxDebug(false) && !d->IsEnabled() && !d->GetLevel());
    d->Print(1, "silenced");
    d->Print(0, "level zero still goes out");
    EXPECT_TRUE(d->ForceMaxDebug(true) && d->GetLevel() == 4u);
    d->Print(4, "back");
    auto msg = RingMessages(d->GetInitialRingPath());
    EXPECT_EQ(Msgs(msg.begin() + 1, msg.begin() + 4), cmd);
    EXPECT_EQ(Msgs(msg.end() - 3, msg.end()), (Msgs{"from module", "level zero still goes out", "back"}));
    d->WriteLogHeader(1);  // a header written now includes the command line
    EXPECT_TRUE(Contains(Messages(Lines(LogPath())), "Process PID                : " + std::to_string(getpid())));
}

TEST_F(CDebugTest, ConfigurationCascade)
{
    const char* kWeight = "TR_LOG_RINGBUF_WEIGHT";
    const char* kLevel = "TR_LOG_DEBUG_LEVEL";
    const std::string substring = "[other]\nFileDebugLevel=1\n[TestProg]\nMaxFileDebugLevel=7\nFileDebugLevel=3\n"
                                  "TraceFlags=0x10\nRingBufferSizeFactor=5\nRingBufferSizeWeight=010\n"
                                  "NoHeaderToStderr=0\n[endoffile]\n";
    const std::string level2 =
        "[testprog]\nFileDebugLevel=2\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\n[EndOfFile]\n";
    const std::string global = "[GlobalDebugSettings]\nDynamicUpdate=30\n[EndOfFile]\n";
    struct Expected {
        long enabled = -1, level = -1, iniLevel = -1, flags = -1, factor = -1, weight = -1;
        long logMax = -1, noHeader = -1, dynamic = -1, ring = -1;  // -1: not checked
    };
    const struct {
        const char* what;
        Msgs pairs;  // file name and text, ...
        std::vector<std::pair<const char*, const char*>> env;
        Expected e;
        Msgs logLines = {};
    } cases[] = {
        {"environment alone", {}, {{kLevel, "5"}, {"TraceFileLimit", "1"}, {kWeight, "1"}},
         {.enabled = 1, .level = 5, .logMax = 51200, .noHeader = 1}},
        {"level without ring size", {}, {{kLevel, "3"}}, {.enabled = 0, .level = 0}},
        {"section name as substring, number bases, factor clamped", {"a.ini", substring}, {},
         {.enabled = 1, .level = 7, .iniLevel = 7, .flags = 16, .factor = 2, .weight = 8, .noHeader = 0,
          .ring = static_cast<long>(4 * 2 * 8 * 256 * kPage)},
         {"RingBufferSizeFactor       : 5", "Ring Buffer Factor         : 2", "No Header to LogFile       : 0"}},
        {"file over default", {"a.ini", level2}, {}, {.level = 2}},
        {"environment over file", {"a.ini", level2},
         {{kLevel, "6"}, {"TR_LOG_FILE_MAX_SIZE", "9999"}, {"TR_LOG_NOHDR_TOSDTERR", "0"}, {"TR_LOG_DYNAMIC_UPDATE", "0"}},
         {.level = 6, .weight = 1, .logMax = 9999, .noHeader = 0}},
        {"per-program weight wins", {"a.ini", level2}, {{kWeight, "2"}, {"TR_LOG_RINGBUF_WEIGHT_TESTPROG", "3"}},
         {.weight = 3}},
        {"file without EndOfFile ignored, first complete file wins",
         {"a.ini", "[testprog]\nFileDebugLevel=4\n", "b.ini", "[testprog]\nFileDebugLevel=5\n[EndOfFile]\n[x]\n",
          "c.ini", "[testprog]\nFileDebugLevel=6\n[EndOfFile]\nFileDebugLevel=9\n",
          "d.ini", "[testprog]\nFileDebugLevel=7\n[EndOfFile]\n"}, {}, {.iniLevel = 6}},
        {"global file", {"global_trace.ini", global}, {}, {.dynamic = 30}},
        {"environment over global file", {"global_trace.ini", global}, {{"TR_LOG_DYNAMIC_UPDATE", "7"}}, {.dynamic = 7}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        testsupport::RemoveTree(m_ConfigDir);
        SetUp();  // the test's own clean environment again
        for (size_t i = 0; i + 1 < c.pairs.size(); i += 2)
            WriteConfig(c.pairs[i], c.pairs[i + 1]);
        for (auto& [name, value] : c.env)
            Set(name, value);
        auto d = Make();
        const Expected& e = c.e;
        const std::pair<long, long> checks[] = {
            {e.enabled, d->IsEnabled()}, {e.level, d->GetLevel()}, {e.iniLevel, d->GetIniLevel()},
            {e.flags, d->GetTraceFlags()}, {e.factor, d->GetRingFactor()}, {e.weight, d->GetRingWeight()},
            {e.logMax, d->GetLogMaxSize()}, {e.noHeader, d->GetNoHeaderFlag()},
            {e.dynamic, static_cast<long>(d->GetDynamicUpdateInterval())},
            {e.ring, static_cast<long>(d->GetRingBufferSize())}};
        for (size_t i = 0; i < std::size(checks); ++i)
            EXPECT_TRUE(checks[i].first == -1 || checks[i].first == checks[i].second) << i << ": " << checks[i].second;
        for (const auto& line : c.logLines)  // the log file's header
            EXPECT_TRUE(Contains(Messages(Lines(LogPath())), line)) << line;
    }
}

// The trace directory: the ring variable, else the configuration's (over the file variable);
// one that cannot be written leaves tracing off with one system-log line.
TEST_F(CDebugTest, TraceDirectoryFromTheVariablesOrTheConfigurationAndUnwritableOnes)
{
    testsupport::TempDir a, b, ini;
    Set("TR_LOG_FILE_DIR", a.Path().c_str());
    Set("TR_LOG_RINGBUF_DIR", b.Path().c_str());
    auto d = MakeTracing();
    EXPECT_EQ(std::string(d->GetTraceDirectory()), b.Path());
    EXPECT_TRUE(testsupport::FileExists(b.Sub("log.testprog")) && testsupport::FileExists(b.Sub("log.testprog_i")) &&
                !testsupport::FileExists(a.Sub("log.testprog")));
    Set("TR_LOG_RINGBUF_DIR", nullptr);
    WriteConfig("p.ini", "[TESTPROG]\nRingBufferDirectory=" + ini.Path() + "\n[EndOfFile]\n");
    EXPECT_EQ(std::string(Make()->GetTraceDirectory()), ini.Path());
    EXPECT_TRUE(testsupport::FileExists(ini.Sub("log.testprog")));

    static std::string logged;
    Set("TR_LOG_RINGBUF_DIR", m_Dir.Sub("no/such/dir").c_str());
    testsupport::RemoveTree(m_ConfigDir);
    d = std::make_unique<CDebug>();
    d->SetSysLogFunction([](int, const char* t) { logged += t; });
    d->SetConfigDirectory(m_ConfigDir.c_str());
    EXPECT_FALSE(d->Init("testprog") || d->IsEnabled() || d->GetTarget() || d->GetLevel());
    EXPECT_EQ(logged, "ERROR: Error during opening " + m_Dir.Sub("no/such/dir") + "/log.testprog --> proceed without it\n");
    d->Print(0, "goes nowhere");
    d->PrintAlways("goes nowhere");
}

TEST_F(CDebugTest, EmptyConfigDirectoryKeepsTracingOffDespiteEnvironment)
{
    // After a first Init, a configuration directory without .ini file makes Init take nothing
    // at all, not even the environment (a fresh object would write its log to "/log.NAME").
    auto d = Make();
    testsupport::TempDir elsewhere;
    Set("TR_LOG_RINGBUF_DIR", elsewhere.Path().c_str());
    WriteConfig("readme.txt", "not an ini\n");
    SetTracing("5");
    d->Init("testprog");
    EXPECT_FALSE(d->IsEnabled() || d->GetLevel() || d->GetTarget());
    EXPECT_EQ(std::string(d->GetTraceDirectory()), m_Dir.Path());
    EXPECT_FALSE(testsupport::FileExists(elsewhere.Sub("log.testprog")));
}

// With an update interval, the first entry after Init rereads the files; later ones wait for it.
TEST_F(CDebugTest, DynamicUpdateRereadsChangedFileAtTheFirstEntry)
{
    std::string file = m_ConfigDir + "/p.ini";
    WriteConfig("p.ini", "[testprog]\nFileDebugLevel=2\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\n"
                         "TraceFlags=1\n[EndOfFile]\n");
    Set("TR_LOG_DYNAMIC_UPDATE", "3600");
    auto d = Make();
    ASSERT_EQ(d->GetLevel(), 2u);
    auto rewrite = [&](const std::string& text, int ahead) {
        WriteConfig("p.ini", text);
        struct timeval later[2];
        gettimeofday(&later[0], nullptr);
        later[0].tv_sec += ahead;
        later[1] = later[0];
        ASSERT_EQ(utimes(file.c_str(), later), 0);
    };
    rewrite("[testprog]\nFileDebugLevel=5\nTraceFlags=3\nMemoryTracesFlag=0\n[EndOfFile]\n", 100);
    d->Print(1, "first");
    // The ring's size is not reread; the entries lose their memory column.
    EXPECT_EQ((std::vector<uint64_t>{d->GetLevel(), d->GetSavedLevel(), d->GetTraceFlags(),
                                     uint64_t(d->GetMemoryTracesFlag()), d->GetRingBufferSize()}),
              (std::vector<uint64_t>{5, 5, 3, 0, 4 * 256 * kPage}));
    EXPECT_TRUE(std::regex_match(Header(*d), std::regex(kTime + " " + kThread + " " + kName)));
    rewrite("[testprog]\nFileDebugLevel=4\n[EndOfFile]\n", 200);
    d->Print(1, "second");  // within the hour: not looked at
    EXPECT_EQ(d->GetLevel(), 5u);
}

// ClassInit closes the outputs and forgets the run but keeps the level; Init opens them again.
TEST_F(CDebugTest, ClassInitClosesOutputsAndKeepsTheLevel)
{
    WriteConfig("p.ini", "[testprog]\nTraceFlags=0x10\n[EndOfFile]\n");
    Set("TR_LOG_FILE_MAX_SIZE", "9999");
    auto d = MakeTracing("4");
    d->SetApplInitDone();
    d->Print(1, "before");
    ASSERT_EQ(d->GetTraceFlags(), 16u);
    const std::string ring = d->GetActiveRingPath(), log = ReadFile(LogPath());
    d->ClassInit();
    EXPECT_FALSE(d->IsEnabled() || d->IsApplInitDone());
    EXPECT_EQ((std::vector<uint64_t>{d->GetLevel(), d->GetTraceFlags(), d->GetLogMaxSize()}),
              (std::vector<uint64_t>{4, 0, 51200}));
    d->Print(0, "after");
    d->PrintAlways("after");
    EXPECT_EQ(ReadFile(LogPath()), log);
    EXPECT_FALSE(Contains(RingMessages(ring), "after"));
    ASSERT_TRUE(d->Init("testprog"));
    EXPECT_EQ(d->GetTarget(), 2u);
    d->Print(1, "again");
    EXPECT_EQ(RingMessages(d->GetInitialRingPath()).back(), "again");
}

TEST_F(CDebugTest, BuildAppVarNameStaysInTheBuffer)
{
    for (auto [size, start, app, expected] :
         {std::tuple{48, "TR_LOG_RINGBUF_WEIGHT", "kopd", "TR_LOG_RINGBUF_WEIGHT_KOPD"},
          {10, "ABCDEF", "xyz", "ABCDEF_XY"}, {10, "A", "", "A"}, {10, "A", nullptr, "A"}}) {
        char buf[48];
        snprintf(buf, sizeof(buf), "%s", start);
        CDebug::BuildAppVarName(buf, size, app);
        EXPECT_STREQ(buf, expected);
    }
}
