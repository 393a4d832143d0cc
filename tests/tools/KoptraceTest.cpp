// koptrace against trace files written by the trace facility itself.
#include "ToolTestSupport.h"

#include "support/TestSupport.h"
#include "trace/CDebug.h"
#include "trace/CTraceReader.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <memory>
#include <unistd.h>

using namespace std::chrono_literals;
using tooltest::Json;
using tooltest::ParseJson;

namespace {

const std::string kTool = KOPTRACE_PATH;

void ClientPrint(CDebug& d, const char* name, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    d.ClientPrintV(format, args, name);
    va_end(args);
}

bool HaveGzip() { return access("/usr/bin/gzip", X_OK) == 0 || access("/bin/gzip", X_OK) == 0; }

class KoptraceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* v : {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_FILE_DIR", "TR_LOG_FILE_MAX_SIZE",
                              "TR_LOG_NOHDR_TOSDTERR", "TR_LOG_RINGBUF_WEIGHT_TESTPROG"})
            Env(v, nullptr);
        Env("TR_LOG_RINGBUF_DIR", m_Dir.Path().c_str());
        Env("TR_LOG_DEBUG_LEVEL", "3");
        Env("TraceFileLimit", "1");
        Env("TR_LOG_RINGBUF_WEIGHT", "1");
        m_Debug = std::make_unique<CDebug>();
        m_Debug->SetSysLogFunction([](int, const char*) {});
        std::string cfg = m_Dir.Sub("no-config");
        m_Debug->SetConfigDirectory(cfg.c_str());
        ASSERT_TRUE(m_Debug->Init("testprog"));
    }
    void Env(const char* n, const char* v) { m_Env.push_back(std::make_unique<testsupport::ScopedEnv>(n, v)); }
    // Ends start-up (initial ring compressed) and makes the active ring small
    // so that it wraps quickly.
    void StartActiveSmallRing()
    {
        m_Debug->SetApplInitDone();
        ASSERT_TRUE(m_Debug->InitRingBuffer(m_Dir.Sub("log.testprog_a").c_str(), 16384));
    }
    static Json ParseOut(const tooltest::RunResult& r)
    {
        Json j;
        std::string err;
        EXPECT_TRUE(ParseJson(r.out, j, &err)) << err << "\n" << r.out.substr(0, 2000);
        return j;
    }
    static std::vector<std::string> Texts(const Json& j)
    {
        std::vector<std::string> t;
        for (auto& e : j.items)
            t.push_back(e["text"].text);
        return t;
    }

    testsupport::TempDir m_Dir;
    std::vector<std::unique_ptr<testsupport::ScopedEnv>> m_Env;
    std::unique_ptr<CDebug> m_Debug;
};

int IndexOf(const std::vector<std::string>& v, const std::string& s)
{
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i] == s)
            return static_cast<int>(i);
    return -1;
}

} // namespace

TEST_F(KoptraceTest, ProgramFilesInTimeOrderAcrossGzipAndWrappedRing)
{
    if (!HaveGzip())
        GTEST_SKIP() << "gzip is not installed";
    m_Debug->Print(1, "\nStartUp             : during start-up %d", 1);
    StartActiveSmallRing();
    for (int i = 0; i < 300; ++i)
        m_Debug->Print(1, "wrap entry %04d", i);
    ASSERT_GE(m_Debug->GetRingWrapCount(), 1u);

    auto r = tooltest::Run(kTool, {"--dir", m_Dir.Path(), "--json", "TestProg"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    Json j = ParseOut(r);
    ASSERT_EQ(j.type, Json::Array);
    auto texts = Texts(j);
    int startup = IndexOf(texts, "StartUp             : during start-up 1");
    int last = IndexOf(texts, "wrap entry 0299");
    ASSERT_GE(startup, 0);
    ASSERT_GE(last, 0);
    EXPECT_LT(startup, last);
    EXPECT_EQ(IndexOf(texts, "wrap entry 0000"), -1) << "overwritten by the wrap";
    // The surviving wrap entries are consecutive and end with the newest.
    int first = -1;
    for (size_t i = 0; i < texts.size(); ++i)
        if (texts[i].rfind("wrap entry ", 0) == 0) {
            int n = std::stoi(texts[i].substr(11));
            if (first >= 0) {
                EXPECT_EQ(n, first + 1) << i;
            }
            first = n;
        }
    EXPECT_EQ(first, 299);

    bool sawGz = false, sawActive = false;
    for (auto& e : j.items) {
        ASSERT_EQ(e["file"].type, Json::String);
        sawGz = sawGz || e["file"].text == m_Dir.Sub("log.testprog_i.gz");
        sawActive = sawActive || e["file"].text == m_Dir.Sub("log.testprog_a");
        if (e["text"].text == "wrap entry 0299") {
            EXPECT_EQ(e["name"].text, "testprog");
            EXPECT_EQ(e["thread"].text.size(), 8u);
            EXPECT_EQ(e["time"].text.size(), 23u);
            EXPECT_EQ(e["memory_kb"].type, Json::Number);  // memory column on by default
        }
    }
    EXPECT_TRUE(sawGz);
    EXPECT_TRUE(sawActive);

    // Human form: the entry lines themselves.
    r = tooltest::Run(kTool, {"--dir", m_Dir.Path(), "testprog"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find(" wrap entry 0299\n"), std::string::npos);
}

TEST_F(KoptraceTest, ThreadAndNameFilters)
{
    m_Debug->Print(1, "own entry");
    ClientPrint(*m_Debug, "othermod", "client entry");
    std::string ring = m_Dir.Sub("log.testprog_i");
    auto all = tooltest::Run(kTool, {"--json", ring});
    ASSERT_TRUE(all.Exited(0)) << all.err;
    Json j = ParseOut(all);
    std::string thread;
    for (auto& e : j.items)
        if (e["text"].text == "own entry")
            thread = e["thread"].text;
    ASSERT_EQ(thread.size(), 8u);

    auto r = tooltest::Run(kTool, {"--json", "--name", "othermod", ring});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_EQ(Texts(ParseOut(r)), std::vector<std::string>{"client entry"});

    r = tooltest::Run(kTool, {"--json", "--thread", thread, "--name", "testprog", ring});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    auto texts = Texts(ParseOut(r));
    EXPECT_NE(IndexOf(texts, "own entry"), -1);
    EXPECT_EQ(IndexOf(texts, "client entry"), -1);

    unsigned other = static_cast<unsigned>(std::stoul(thread, nullptr, 16)) ^ 1u;
    char buf[16];
    snprintf(buf, sizeof buf, "%x", other);
    r = tooltest::Run(kTool, {"--json", "--thread", buf, ring});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_EQ(ParseOut(r).Size(), 0u);
}

TEST_F(KoptraceTest, TruncatedRingGivesWhatCanBeReadAndStatus1)
{
    for (int i = 0; i < 20; ++i)
        m_Debug->Print(1, "entry %d", i);
    std::string text = testsupport::ReadFile(m_Dir.Sub("log.testprog_i"));
    size_t marker = text.find("## TRACE-END ##");
    ASSERT_NE(marker, std::string::npos);
    std::string cut = m_Dir.Sub("cut_a");
    for (size_t len : {marker - 40, text.find("### Begin of RingBuffer") + 10, size_t{100}, size_t{0}}) {
        ASSERT_TRUE(testsupport::WriteFile(cut, text.substr(0, len)));
        auto r = tooltest::Run(kTool, {"--json", cut});
        EXPECT_TRUE(r.Exited(1)) << len << " status " << r.exitCode << " signal " << r.signal;
        EXPECT_EQ(r.err.rfind("koptrace: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find("truncated or damaged"), std::string::npos) << r.err;
        Json j;
        EXPECT_TRUE(ParseJson(r.out, j)) << r.out;
    }
    // Garbage of every byte value: never a crash.
    std::string junk;
    for (int i = 0; i < 5000; ++i)
        junk += static_cast<char>((i * 37) & 0xFF);
    ASSERT_TRUE(testsupport::WriteFile(cut, junk + "## TRACE-END ##\n" + junk));
    auto r = tooltest::Run(kTool, {"--json", cut});
    EXPECT_EQ(r.signal, 0);
    Json j;
    EXPECT_TRUE(ParseJson(r.out, j)) << r.out.substr(0, 500);
}

TEST_F(KoptraceTest, BadInputAndUsage)
{
    auto r = tooltest::Run(kTool, {"--dir", m_Dir.Sub("nowhere"), "kopd"});
    EXPECT_TRUE(r.Exited(1));
    EXPECT_NE(r.err.find("koptrace: no trace files of 'kopd'"), std::string::npos) << r.err;

    r = tooltest::Run(kTool, {m_Dir.Sub("missing_a")});
    EXPECT_TRUE(r.Exited(1));
    EXPECT_NE(r.err.find("no such file"), std::string::npos) << r.err;

    r = tooltest::Run(kTool, {"--bogus", "x"});
    EXPECT_TRUE(r.Exited(2));
    EXPECT_NE(r.err.find("unknown option '--bogus'"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("--help"), std::string::npos);

    EXPECT_TRUE(tooltest::Run(kTool, {}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"--thread", "xyz", "a"}).Exited(2));
    EXPECT_TRUE(tooltest::Run(kTool, {"--dir"}).Exited(2));
    r = tooltest::Run(kTool, {"--help"});
    EXPECT_TRUE(r.Exited(0));
    EXPECT_NE(r.out.find("Usage: koptrace"), std::string::npos);

    // --follow without a ring buffer.
    m_Debug->PrintAlways("to the log file");
    r = tooltest::Run(kTool, {"--follow", m_Dir.Sub("log.testprog")});
    EXPECT_TRUE(r.Exited(1)) << r.err;
}

TEST_F(KoptraceTest, FollowPrintsNewEntriesAcrossWrapsUntilSigterm)
{
    StartActiveSmallRing();
    m_Debug->Print(1, "before follow");
    std::string ring = m_Dir.Sub("log.testprog_a");
    tooltest::Child child(kTool, {"--follow", ring});
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.WaitForOutput(" before follow\n", 20s)) << child.Output();

    m_Debug->Print(1, "follow entry %d", 1);
    m_Debug->Print(1, "follow entry %d", 2);
    ASSERT_TRUE(child.WaitForOutput(" follow entry 2\n", 20s)) << child.Output();
    // Many entries: the small ring wraps several times between polls.
    for (int i = 0; i < 600; ++i)
        m_Debug->Print(1, "burst %04d", i);
    ASSERT_TRUE(child.WaitForOutput(" burst 0599\n", 20s)) << child.Output().substr(child.Output().size() - 500);
    auto r = child.Stop(SIGTERM, 20000ms);
    EXPECT_TRUE(r.Exited(0)) << "status " << r.exitCode << " signal " << r.signal << " " << r.err;
    // Each entry printed once, in order.
    auto lines = testsupport::SplitLines(r.out);
    int count1 = 0, lastBurst = -1;
    for (auto& l : lines) {
        std::string m = CTraceReader::MessageOf(l);
        if (m == "follow entry 1")
            ++count1;
        if (m.rfind("burst ", 0) == 0) {
            int n = std::stoi(m.substr(6));
            EXPECT_GT(n, lastBurst) << l;
            lastBurst = n;
        }
    }
    EXPECT_EQ(count1, 1);
    EXPECT_EQ(lastBurst, 599);
}

TEST_F(KoptraceTest, FollowJsonIsClosedOnSigint)
{
    m_Debug->Print(1, "first");
    tooltest::Child child(kTool, {"--follow", "--json", m_Dir.Sub("log.testprog_i")});
    ASSERT_TRUE(child.WaitForOutput("\"first\"", 20s)) << child.Output();
    m_Debug->Print(1, "second \"quoted\"\t");
    ASSERT_TRUE(child.WaitForOutput("second", 20s)) << child.Output();
    auto r = child.Stop(SIGINT, 20000ms);
    EXPECT_TRUE(r.Exited(0)) << r.err;
    Json j;
    std::string err;
    ASSERT_TRUE(ParseJson(r.out, j, &err)) << err << r.out;
    auto texts = Texts(j);
    EXPECT_NE(IndexOf(texts, "second \"quoted\"\t"), -1);
}

TEST_F(KoptraceTest, LineInBothLogFileAndRingIsShownOnce)
{
    // Written regardless of the level: each line lands in the ring buffer and
    // in the log file with the same time stamp, thread and text.  (The two
    // copies carry time stamps of their own; a burst crosses at most one
    // millisecond boundary, where the copies may differ and both show.)
    constexpr int kLines = 50;
    for (int i = 0; i < kLines; ++i)
        m_Debug->PrintAlways(0, "\nMAIN: written to both outputs %d", i);
    m_Debug->Print(1, "\nMAIN: ring only");

    auto r = tooltest::Run(kTool, {"--dir", m_Dir.Path(), "--json", "testprog"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    auto texts = Texts(ParseOut(r));
    int twice = 0;
    for (int i = 0; i < kLines; ++i) {
        std::string line = "MAIN: written to both outputs " + std::to_string(i);
        int seen = 0;
        for (const auto& t : texts)
            seen += t == line;
        EXPECT_GE(seen, 1) << line;
        twice += seen > 1;
    }
    EXPECT_LE(twice, 1);
    EXPECT_GE(IndexOf(texts, "MAIN: ring only"), 0);

    // Given only the log file, its lines are of course shown.
    r = tooltest::Run(kTool, {"--json", m_Dir.Sub("log.testprog")});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_GE(IndexOf(Texts(ParseOut(r)), "MAIN: written to both outputs 0"), 0);
}
