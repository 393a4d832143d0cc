// kopperf against a fake proc tree.
#include "ToolTestSupport.h"

#include "support/FakeProc.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using tooltest::json;

namespace {

const std::string kTool = KOPPERF_PATH;

const json& Instances(const json& j, const char* group)
{
    const json* g = tooltest::FindBy(j.at("groups"), "group", group);
    static const json kNone = json::array();
    return g ? g->at("instances") : kNone;
}

} // namespace

TEST(Kopperf, FakeProcGivesGroupsAndPercentages)
{
    // 75 % of memory and 25 % of swap in use; eth0 is monitored, lo is not.
    testsupport::FakeProc proc;
    proc.MemInfo(1000000, 250000, 400000, 300000);
    proc.Stat(100, 0, 50, 850, 1);
    proc.NetDev({{"eth0", 1000, 2000}, {"lo", 1000, 2000}});
    proc.Write("sys/kernel/pid_max", "32768\n");
    auto r = tooltest::Run(kTool, {"--seconds", "0", "--interval", "100", "--proc", proc.Root(), "--json"});
    ASSERT_TRUE(r.Exited(0)) << r.exitCode << " " << r.signal << " " << r.err;
    json j = tooltest::ParseOutput(r.out);
    ASSERT_FALSE(j.is_discarded()) << r.out;
    EXPECT_EQ(j.at("proc_root"), proc.Root());
    EXPECT_EQ(j.at("interval_ms"), 100);
    const json& mem = Instances(j, "memory");
    ASSERT_EQ(mem.size(), 1u);
    EXPECT_GE(mem[0].at("samples"), 2);  // two at start, the thread may add one
    EXPECT_EQ(mem[0].at("values"), json::parse(R"([
        {"value": 8, "name": "memory", "current": 75, "average": 75},
        {"value": 9, "name": "swap", "current": 25, "average": 25}])"));
    ASSERT_EQ(Instances(j, "system").size(), 1u);
    EXPECT_EQ(Instances(j, "system")[0].at("values").size(), 4u);
    // One monitored interface (lo is not one), named.
    ASSERT_EQ(Instances(j, "network").size(), 1u);
    EXPECT_EQ(Instances(j, "network")[0].at("name"), "eth0");
    const json& procs = Instances(j, "processes");
    ASSERT_EQ(procs.size(), 1u);
    ASSERT_EQ(procs[0].at("values").size(), 8u);
    for (const json& v : procs[0].at("values"))
        EXPECT_TRUE(v.at("current").is_null() || v.at("current").is_number_unsigned()) << v;

    r = tooltest::Run(kTool, {"--seconds", "0", "--proc", proc.Root()});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find("memory     0          memory (8)              75%      75%\n"), std::string::npos) << r.out;
}

TEST(Kopperf, BadInput)
{
    testsupport::TempDir proc;
    auto r = tooltest::Run(kTool, {"--seconds", "0", "--proc", proc.Path()});
    EXPECT_TRUE(r.Exited(1)) << r.exitCode << " " << r.signal;
    EXPECT_NE(r.err.find("kopperf: no samples could be taken from " + proc.Path()), std::string::npos) << r.err;
    r = tooltest::Run(kTool, {"--proc", proc.Sub("missing")});
    EXPECT_TRUE(r.Exited(1));
    EXPECT_NE(r.err.find("is not a directory"), std::string::npos);
    for (auto args : std::vector<std::vector<std::string>>{
             {"--interval", "0"}, {"--seconds", "-1"}, {"--seconds", "x"}, {"--bogus"}, {"extra"}, {"--proc"}}) {
        r = tooltest::Run(kTool, args);
        EXPECT_TRUE(r.Exited(2)) << args[0];
        EXPECT_EQ(r.err.rfind("kopperf: ", 0), 0u);
    }
    r = tooltest::Run(kTool, {"--help"});
    EXPECT_TRUE(r.Exited(0));
    EXPECT_NE(r.out.find("own open"), std::string::npos);
}
