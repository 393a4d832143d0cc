// koptrace against trace files written by the trace facility itself.
#include "ToolTestSupport.h"

#include "support/TraceEnv.h"
#include "common/UniqueHandle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;
using tooltest::json;

namespace {

const std::string kTool = KOPTRACE_PATH;

class KoptraceTest : public testsupport::TraceEnv {
protected:
    void SetUp() override
    {
        TraceEnv::SetUp();
        m_Debug = MakeTracing();
    }
    // Ends start-up (initial ring compressed) and makes the active ring small
    // so that it wraps quickly.
    void StartActiveSmallRing()
    {
        m_Debug->SetApplInitDone();
        ASSERT_TRUE(m_Debug->InitRingBuffer(m_Dir.Sub("log.testprog_a").c_str(), 16384));
    }
    static json Parse(const std::string& out)
    {
        json j = tooltest::ParseOutput(out);
        EXPECT_FALSE(j.is_discarded()) << out.substr(0, 2000);
        return j;
    }
    static json JsonOf(const std::vector<std::string>& args) { return tooltest::RunJson(kTool, args); }
    // The entries' texts, in the order the tool wrote them.
    static std::vector<std::string> Texts(const json& j)
    {
        std::vector<std::string> t;
        for (const json& e : j)
            t.push_back(e.value("text", ""));
        return t;
    }

    std::unique_ptr<CDebug> m_Debug;
};

} // namespace

TEST_F(KoptraceTest, ProgramFilesInTimeOrderAcrossGzipAndWrappedRing)
{
    if (access("/usr/bin/gzip", X_OK) != 0 && access("/bin/gzip", X_OK) != 0)
        GTEST_SKIP() << "gzip is not installed";
    m_Debug->Print(1, "\nStartUp             : during start-up %d", 1);
    StartActiveSmallRing();
    for (int i = 0; i < 300; ++i)
        m_Debug->Print(1, "wrap entry %04d", i);
    ASSERT_GE(m_Debug->GetRingWrapCount(), 1u);

    json j = JsonOf({"--dir", m_Dir.Path(), "--json", "TestProg"});
    auto texts = Texts(j);
    auto startup = std::find(texts.begin(), texts.end(), "StartUp             : during start-up 1");
    EXPECT_LT(startup, std::find(texts.begin(), texts.end(), "wrap entry 0299"));
    // The surviving wrap entries are consecutive, the oldest overwritten, and end with the newest.
    std::vector<int> wraps;
    for (const auto& t : texts)
        if (t.rfind("wrap entry ", 0) == 0)
            wraps.push_back(std::stoi(t.substr(11)));
    ASSERT_FALSE(wraps.empty());
    EXPECT_GT(wraps.front(), 0);  // the oldest overwritten
    for (size_t i = 1; i < wraps.size(); ++i)
        EXPECT_EQ(wraps[i], wraps[i - 1] + 1) << i;
    EXPECT_EQ(wraps.back(), 299);
    EXPECT_TRUE(tooltest::FindBy(j, "file", m_Dir.Sub("log.testprog_i.gz")) &&
                tooltest::FindBy(j, "file", m_Dir.Sub("log.testprog_a")));
    const json* newest = tooltest::FindBy(j, "text", "wrap entry 0299");
    ASSERT_TRUE(tooltest::HasMembers(newest, R"({"name": "testprog"})"));
    EXPECT_EQ(newest->at("time").get<std::string>().size(), 23u);
    EXPECT_TRUE(newest->at("memory_kb").is_number());  // memory column on by default
}

TEST_F(KoptraceTest, ThreadAndNameFilters)
{
    m_Debug->Print(1, "own entry");
    ClientPrint(*m_Debug, "othermod", "client entry");
    std::string ring = m_Dir.Sub("log.testprog_i");
    const json all = JsonOf({"--json", ring});
    const json* own = tooltest::FindBy(all, "text", "own entry");
    ASSERT_TRUE(own);
    const std::string thread = own->at("thread");
    ASSERT_EQ(thread.size(), 8u);
    EXPECT_EQ(Texts(JsonOf({"--json", "--name", "othermod", ring})), std::vector<std::string>{"client entry"});
    auto texts = Texts(JsonOf({"--json", "--thread", thread, "--name", "testprog", ring}));
    EXPECT_TRUE(Contains(texts, "own entry") && !Contains(texts, "client entry"));
    char other[16];
    snprintf(other, sizeof other, "%x", static_cast<unsigned>(std::stoul(thread, nullptr, 16)) ^ 1u);
    EXPECT_EQ(JsonOf({"--json", "--thread", other, ring}), json::array());
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
        EXPECT_NE(r.err.find("koptrace: " + cut + ": truncated or damaged"), std::string::npos) << r.err;
        Parse(r.out);
    }
    // Garbage of every byte value: never a crash.
    std::string junk;
    for (int i = 0; i < 5000; ++i)
        junk += static_cast<char>((i * 37) & 0xFF);
    ASSERT_TRUE(testsupport::WriteFile(cut, junk + "## TRACE-END ##\n" + junk));
    auto r = tooltest::Run(kTool, {"--json", cut});
    EXPECT_EQ(r.signal, 0);
    Parse(r.out);
}

TEST_F(KoptraceTest, BadInputAndUsage)
{
    std::string binary(4096, '\0');
    for (size_t i = 0; i < binary.size(); ++i)
        binary[i] = static_cast<char>((i * 131) & 0xFF);
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("binary"), binary));
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("empty"), ""));
    ASSERT_TRUE(testsupport::WriteFile(m_Dir.Sub("text"), std::string(70000, '\n') + "2024-01-01 00:00:00.000 [1] x\n"));
    const struct {
        std::vector<std::string> args;
        int status;
        const char* message;  // on either output
    } cases[] = {
        {{"--dir", m_Dir.Sub("nowhere"), "kopd"}, 1, "koptrace: no trace files of 'kopd'"},
        {{m_Dir.Sub("missing_a")}, 1, "no such file"},
        {{"--bogus", "x"}, 2, "unknown option '--bogus'"},
        {{}, 2, "--help"},
        {{"--thread", "xyz", "a"}, 2, "koptrace: "},
        {{"--dir"}, 2, "koptrace: "},
        {{"--help"}, 0, "Usage: koptrace"},
        {{m_Dir.Sub("binary")}, 1, "binary: not a trace file (binary data)"},
        {{m_Dir.Sub("empty")}, 1, "empty: empty file, no trace entries"},
        {{m_Dir.Sub("text")}, 1, "text: not a trace file (no trace entry line at its start)"},
        {{m_Dir.Path()}, 1, "is a directory, not a trace file"},
        {{"/dev/null"}, 1, "koptrace: /dev/null: not a regular file"},
        {{"--json", "--dir", m_Dir.Sub("nowhere"), "kopd"}, 1, "\"error\": \"no trace files of 'kopd'"},
        {{"--json", "--bogus"}, 2, "{\"error\": \"unknown option '--bogus'\"}\n"},
    };
    for (const auto& c : cases)
        tooltest::ExpectRefused(kTool, c.args, c.status, c.message);
}

TEST_F(KoptraceTest, UnreadableFilesAreReportedWithTheReason)
{
    m_Debug->Print(1, "entry");
    StartActiveSmallRing();
    for (const char* name : {"log.testprog", "log.testprog_a", "log.testprog_i.gz"}) {
        ASSERT_EQ(chmod(m_Dir.Sub(name).c_str(), 0600), 0) << name;
        auto r = tooltest::RunUnprivileged(m_Dir.Path(), kTool, {m_Dir.Sub(name)});
        EXPECT_TRUE(r.Exited(1)) << name << " " << r.exitCode;
        EXPECT_EQ(r.err, "koptrace: " + m_Dir.Sub(name) + ": Permission denied\n");
    }
}

// A log far larger than the memory the tool may use is streamed: with the address space limited to
// a few times the tool's own size, the whole file could not be held.
TEST_F(KoptraceTest, BigLogIsStreamedInBoundedMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer reserves more address space than the limit";
#endif
    constexpr int kBlocks = 550;  // about 48 MB
    std::string block;
    for (int i = 0; i < 1000; ++i)
        block += "2024-01-01 00:00:00.000 [0000ABCD] kopd          line of a big log, number " + std::to_string(i) + "\n";
    const std::string path = m_Dir.Sub("log.big");
    {
        UniqueFile f(fopen(path.c_str(), "we"));
        ASSERT_TRUE(f);
        for (int i = 0; i < kBlocks; ++i)
            ASSERT_EQ(fwrite(block.data(), 1, block.size(), f.Get()), block.size());
    }
    std::string out;
    int rc = testsupport::Shell("ulimit -v 65536 && " + testsupport::Quote(kTool) + " " + testsupport::Quote(path) +
                                    " | awk 'END { print NR; print }'",
                                &out);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_EQ(out, std::to_string(kBlocks * 1000) +
                       "\n2024-01-01 00:00:00.000 [0000ABCD] kopd          line of a big log, number 999\n");
}

TEST_F(KoptraceTest, FollowPrintsNewEntriesAcrossWrapsUntilSigterm)
{
    StartActiveSmallRing();
    m_Debug->Print(1, "before follow");
    tooltest::Child child(kTool, {"--follow", m_Dir.Sub("log.testprog_a")});
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
    auto messages = Messages(testsupport::SplitLines(r.out));
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "follow entry 1"), 1);
    int lastBurst = -1;
    for (const auto& m : messages)
        if (m.rfind("burst ", 0) == 0) {
            EXPECT_GT(std::stoi(m.substr(6)), lastBurst) << m;
            lastBurst = std::stoi(m.substr(6));
        }
    EXPECT_EQ(lastBurst, 599);
}

TEST_F(KoptraceTest, FollowJsonOfTheRingOrElseTheLogFileIsClosedOnSigint)
{
    for (const std::string file : {"log.testprog_i", "log.testprog"}) {
        m_Debug->PrintAlways(0, "first %s", file.c_str());
        tooltest::Child child(kTool, {"--follow", "--json", m_Dir.Sub(file)});
        ASSERT_TRUE(child.WaitForOutput("\"first " + file + "\"", 20s)) << child.Output();
        m_Debug->PrintAlways(0, "second \"quoted\"\t%s", file.c_str());
        ASSERT_TRUE(child.WaitForOutput("\\t" + file + "\"", 20s)) << child.Output();
        auto r = child.Stop(SIGINT, 20000ms);
        EXPECT_TRUE(r.Exited(0) && Contains(Texts(Parse(r.out)), "second \"quoted\"\t" + file)) << r.err;
    }
}

TEST_F(KoptraceTest, LineInBothLogFileAndRingIsShownOnce)
{
    // Each line lands in the ring buffer and in the log file; the copies'
    // time stamps differ only where a millisecond boundary fell between them.
    constexpr int kLines = 50;
    for (int i = 0; i < kLines; ++i)
        m_Debug->PrintAlways(0, "\nMAIN: written to both outputs %d", i);
    m_Debug->Print(1, "\nMAIN: ring only");
    auto texts = Texts(JsonOf({"--dir", m_Dir.Path(), "--json", "testprog"}));
    int twice = 0;
    for (int i = 0; i < kLines; ++i) {
        auto seen = std::count(texts.begin(), texts.end(), "MAIN: written to both outputs " + std::to_string(i));
        EXPECT_GE(seen, 1) << i;
        twice += seen > 1;
    }
    EXPECT_LT(twice, kLines / 2);  // unmerged, every line would show twice
    EXPECT_TRUE(Contains(texts, "MAIN: ring only"));
}
