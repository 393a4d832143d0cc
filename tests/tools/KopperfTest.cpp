// kopperf against a fake proc tree.
#include "ToolTestSupport.h"

#include "support/FakeProc.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

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
    proc.Write("sys/class/net/eth0/speed", "100\n");
    const std::vector<std::string> roots = {"--proc", proc.Root(), "--sys", proc.Path("sys")};
    auto args = [&](std::vector<std::string> more) {
        more.insert(more.end(), roots.begin(), roots.end());
        return more;
    };
    json j = tooltest::RunJson(kTool, args({"--seconds", "0", "--interval", "100", "--json"}));
    EXPECT_TRUE(j.at("proc_root") == proc.Root() && j.at("interval_ms") == 100);
    const json& mem = Instances(j, "memory");
    ASSERT_EQ(mem.size(), 1u);
    EXPECT_GE(mem[0].at("samples"), 2);  // two at start, the thread may add one
    EXPECT_EQ(mem[0].at("values"), json::parse(R"([
        {"value": 8, "name": "memory", "current": 75, "average": 75},
        {"value": 9, "name": "swap", "current": 25, "average": 25}])"));
    const json &system = Instances(j, "system"), &network = Instances(j, "network");
    EXPECT_TRUE(system.size() == 1 && system[0].at("values").size() == 4) << system;
    EXPECT_TRUE(network.size() == 1 && network[0].at("name") == "eth0") << network;  // lo is not monitored
    const json& procs = Instances(j, "processes");
    ASSERT_TRUE(procs.size() == 1 && procs[0].at("values").size() == 8) << procs;
    for (const json& v : procs[0].at("values"))
        EXPECT_TRUE(v.at("current").is_null() || v.at("current").is_number_unsigned()) << v;

    // Memory as free(1) shows it (available here is the free figure), every interface with its speed.
    EXPECT_EQ(j.at("memory"), json::parse(R"({"total_bytes": 1024000000, "available_bytes": 256000000,
        "used_bytes": 768000000, "swap_total_bytes": 409600000, "swap_free_bytes": 307200000})"));
    ASSERT_EQ(j.at("interfaces").size(), 2u);
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("interfaces"), "name", "eth0"),
                                     R"({"received_bytes": 1000, "sent_bytes": 2000, "link_speed_mbps": 100})"));
    EXPECT_TRUE(tooltest::HasMembers(tooltest::FindBy(j.at("interfaces"), "name", "lo"), R"({"link_speed_mbps": null})"));

    auto r = tooltest::Run(kTool, args({"--seconds", "0"}));
    ASSERT_TRUE(r.Exited(0)) << r.err;
    for (const char* line : {"memory     0          memory (8)              75%      75%\n",
                             "memory: total 1024000000 B, used 768000000 B (without cache), available 256000000 B\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
    // Rates over no time at all may be unknown: only the columns around them are fixed.
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\neth0 +1000 +2000 +[-0] +[-0] +100\nlo +1000 +2000 +[-0] +[-0] +-\n")))
        << r.out;
}

TEST(Kopperf, BadInput)
{
    testsupport::TempDir proc;
    const std::string usage = "kopperf: ";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"--seconds", "0", "--proc", proc.Path()}, 1,
         "kopperf: cannot read " + proc.Path() + "/stat: No such file or directory\n"},
        {{"--json", "--proc", proc.Path()}, 1, "{\"error\": \"cannot read " + proc.Path() + "/stat: No such file"},
        {{"--json", "--interval", "0"}, 2, "{\"error\": \"--interval needs milliseconds"},
        {{"--proc", proc.Sub("missing")}, 1, "is not a directory"}, {{"--interval", "0"}, 2, usage},
        {{"--seconds", "-1"}, 2, usage}, {{"--seconds", "x"}, 2, usage}, {{"--bogus"}, 2, usage},
        {{"extra"}, 2, usage}, {{"--proc"}, 2, usage}, {{"--sys"}, 2, usage}, {{"--help"}, 0, "own open"}};
    for (const auto& [args, status, message] : cases)
        tooltest::ExpectRefused(kTool, args, status, message);
}

// Like vmstat: a line per interval as it is sampled, long before the end.
TEST(Kopperf, LinePerIntervalIsWrittenAsItIsSampled)
{
    testsupport::FakeProc proc;
    proc.MemInfo(1000000, 250000, 400000, 300000);
    proc.Stat(100, 0, 50, 850, 1);
    tooltest::Child child(kTool, {"--seconds", "3600", "--interval", "100", "--proc", proc.Root()});
    ASSERT_TRUE(child.WaitForOutput("  usage    idle    user  kernel  memory    swap\n", std::chrono::seconds(60)));
    ASSERT_TRUE(child.WaitForOutput("    75%     25%\n", std::chrono::seconds(60))) << child.Output();
    auto r = child.Stop(SIGINT, std::chrono::seconds(60));
    EXPECT_TRUE(r.Exited(0) && r.out.find("memory (8)") != std::string::npos) << r.err << r.out;  // a summary
}

// An interval longer than the time asked for is not ignored: the run lasts
// one interval and samples once after it.
TEST(Kopperf, TimeIsRoundedUpToWholeIntervals)
{
    testsupport::FakeProc proc;
    proc.MemInfo(1000000, 250000, 400000, 300000);
    proc.Stat(100, 0, 50, 850, 1);
    json j = tooltest::RunJson(kTool, {"--seconds", "1", "--interval", "1500", "--json", "--proc", proc.Root()});
    EXPECT_GE(Instances(j, "memory").at(0).at("samples"), 3) << j;  // two at start, one after the interval
}

TEST(Tools, EveryToolTellsItsVersion)
{
    for (const auto& [name, path] : {std::pair<std::string, std::string>{"kopperf", KOPPERF_PATH},
                                     {"koptrace", KOPTRACE_PATH}, {"kopreg", KOPREG_PATH}, {"kophw", KOPHW_PATH}}) {
        auto r = tooltest::Run(path, {"--version"});
        EXPECT_TRUE(r.Exited(0)) << name;
        EXPECT_EQ(r.out, name + " (tarvd) " TARVD_VERSION_TEXT "\n");
    }
}
