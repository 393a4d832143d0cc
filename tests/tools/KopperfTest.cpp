// kopperf against a fake proc tree.
#include "ToolTestSupport.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

using tooltest::Json;
using tooltest::ParseJson;

namespace {

const std::string kTool = KOPPERF_PATH;

void FakeProc(const std::string& root)
{
    testsupport::WriteFile(root + "/meminfo", "MemTotal:       1000000 kB\nMemFree:         250000 kB\n"
                                              "SwapTotal:       400000 kB\nSwapFree:        300000 kB\n");
    testsupport::WriteFile(root + "/stat", "cpu  100 0 50 850 0 0 0 0 0 0\ncpu0 100 0 50 850 0 0 0 0 0 0\n");
    testsupport::WriteFile(root + "/net/dev",
                           "Inter-|   Receive |  Transmit\n face |bytes packets|bytes packets\n"
                           "  eth0: 1000 1 0 0 0 0 0 0 2000 1 0 0 0 0 0 0\n"
                           "    lo: 1000 1 0 0 0 0 0 0 2000 1 0 0 0 0 0 0\n");
    testsupport::WriteFile(root + "/sys/kernel/pid_max", "32768\n");
}

const Json* Group(const Json& j, const std::string& name)
{
    for (auto& g : j["groups"].items)
        if (g["group"].text == name)
            return &g;
    return nullptr;
}

const Json* Value(const Json& group, int instance, int value)
{
    for (auto& i : group["instances"].items)
        if (i["instance"].number == instance)
            for (auto& v : i["values"].items)
                if (v["value"].number == value)
                    return &v;
    return nullptr;
}

} // namespace

TEST(Kopperf, FakeProcGivesGroupsAndPercentages)
{
    testsupport::TempDir proc;
    FakeProc(proc.Path());
    auto r = tooltest::Run(kTool, {"--seconds", "0", "--proc", proc.Path(), "--json"});
    ASSERT_TRUE(r.Exited(0)) << r.exitCode << " " << r.signal << " " << r.err;
    Json j;
    std::string err;
    ASSERT_TRUE(ParseJson(r.out, j, &err)) << err << r.out;
    EXPECT_EQ(j["proc_root"].text, proc.Path());
    const Json* mem = Group(j, "memory");
    ASSERT_NE(mem, nullptr);
    ASSERT_EQ((*mem)["instances"].Size(), 1u);
    EXPECT_GE((*mem)["instances"][0]["samples"].number, 2);  // two at start, the thread may add one
    ASSERT_NE(Value(*mem, 0, 8), nullptr);
    EXPECT_EQ((*Value(*mem, 0, 8))["current"].number, 75);
    EXPECT_EQ((*Value(*mem, 0, 8))["average"].number, 75);
    EXPECT_EQ((*Value(*mem, 0, 9))["current"].number, 25);
    EXPECT_EQ((*Value(*mem, 0, 9))["name"].text, "swap");

    const Json* sys = Group(j, "system");
    ASSERT_NE(sys, nullptr);
    ASSERT_EQ((*sys)["instances"].Size(), 1u);
    ASSERT_EQ((*sys)["instances"][0]["values"].Size(), 4u);

    // One monitored interface (lo is not one), named.
    const Json* net = Group(j, "network");
    ASSERT_NE(net, nullptr);
    ASSERT_EQ((*net)["instances"].Size(), 1u);
    EXPECT_EQ((*net)["instances"][0]["name"].text, "eth0");

    const Json* procs = Group(j, "processes");
    ASSERT_NE(procs, nullptr);
    ASSERT_EQ((*procs)["instances"].Size(), 1u);
    EXPECT_EQ((*procs)["instances"][0]["values"].Size(), 8u);
    for (auto& v : (*procs)["instances"][0]["values"].items)
        EXPECT_TRUE(v["current"].IsNull() || v["current"].type == Json::Number);

    r = tooltest::Run(kTool, {"--seconds", "0", "--proc", proc.Path()});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    EXPECT_NE(r.out.find("memory     0          memory (8)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("75%"), std::string::npos);
}

TEST(Kopperf, SamplesOverTimeWithShortInterval)
{
    testsupport::TempDir proc;
    FakeProc(proc.Path());
    auto r = tooltest::Run(kTool, {"--seconds", "1", "--interval", "100", "--proc", proc.Path(), "--json"});
    ASSERT_TRUE(r.Exited(0)) << r.err;
    Json j;
    ASSERT_TRUE(ParseJson(r.out, j)) << r.out;
    const Json* mem = Group(j, "memory");
    ASSERT_NE(mem, nullptr);
    EXPECT_GE((*mem)["instances"][0]["samples"].number, 3);
    EXPECT_EQ(j["interval_ms"].number, 100);
}

TEST(Kopperf, BadInput)
{
    testsupport::TempDir proc;
    auto r = tooltest::Run(kTool, {"--seconds", "0", "--proc", proc.Path()});
    EXPECT_TRUE(r.Exited(1)) << r.exitCode << " " << r.signal;
    EXPECT_NE(r.err.find("kopperf: "), std::string::npos);
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
