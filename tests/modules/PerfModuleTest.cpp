// The performance module, loaded like the framework loads it, on a made-up
// proc root with the registry in a temporary directory.
#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "ModuleTestSupport.h"
#include "support/RegistryFixture.h"

using namespace modtest;
using testsupport::TempDir;

namespace {

const std::string kPerf = "SOFTWARE\\Tarvis\\Performance";

class PerfModuleTest : public RegistryTest {
protected:
    void SetUp() override
    {
        RegistryTest::SetUp();
        ASSERT_TRUE(m_Lib.Table()) << dlerror();
        MakeProc(m_Proc.Path());
    }
    /// Loads and starts the module with `values` (the proc root and a 100 ms period unless named).
    void Start(std::map<std::string, std::string> values = {})
    {
        values.insert({{"PeriodMs", "100"}, {"ProcRoot", m_Proc.Path()}});
        m_Config = std::make_unique<ModuleConfig>(values);
        ASSERT_EQ(m_Lib->load(m_Config->Get()), 1);
        ASSERT_EQ(m_Lib->start(), 1);
    }
    bool WaitNumber(const std::string& key, const char* name, uint32_t value)
    {
        return WaitFor([&] { return NumberOr(kPerf + key, name, 999) == value; });
    }

    TempDir m_Proc;
    std::unique_ptr<ModuleConfig> m_Config;
    ModuleLibrary m_Lib{TEST_PERF_MODULE};
};

} // namespace

TEST_F(PerfModuleTest, KeepsFiguresUpdatedUntilTheDaemonStopsAndDropsStaleInterfaceKeys)
{
    {
        CRegistry reg;  // an interface of an earlier run
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, (kPerf + "\\Network\\7").c_str()), 0);
        reg.SetValue("Name", "eth7");
    }
    Start({{"HistoryLength", "5"}});
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentUsage", 75) && WaitNumber("\\Memory", "AverageUsage", 75));
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentSwapUsage", 50));
    EXPECT_TRUE(WaitNumber("\\System", "AverageKernel", 0));  // the counters stand still
    EXPECT_TRUE(WaitFor([&] { return TextOr(kPerf + "\\Network\\1", "Name") == "br0"; }));
    EXPECT_EQ(TextOr(kPerf + "\\Network\\0", "Name"), "eth0");
    EXPECT_EQ(SubKeys(kPerf + "\\Network"), (std::vector<std::string>{"0", "1"}));  // lo is not monitored
    EXPECT_EQ(NumberOr(kPerf, "PeriodMs", 0), 100u);
    EXPECT_TRUE(std::regex_match(TextOr(kPerf, "LastUpdate"), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));

    // A change of the machine shows within a few periods; the average follows (5 samples).
    WriteMemInfo(m_Proc.Path(), 1000, 500, 2000, 2000);
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentUsage", 50) && WaitNumber("\\Memory", "AverageUsage", 50));
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentSwapUsage", 0));
    // The daemon's stop: an update running right now may still finish; none starts afterwards.
    m_Lib->notify(TARVD_EVENT_DAEMON_STOPPING, nullptr);
    int32_t level = 6;
    m_Lib->notify(TARVD_EVENT_OS_SHUTDOWN, &level);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    uint32_t updates = NumberOr(kPerf, "Updates", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(NumberOr(kPerf, "Updates", 0), updates);
    m_Lib->stop();
    m_Lib->unload();
    CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());  // saved: a fresh load has the figures
    EXPECT_EQ(NumberOr(kPerf + "\\Memory", "CurrentUsage", 999), 50u);
    EXPECT_EQ(TextOr(kPerf + "\\Network\\1", "Name"), "br0");
}

TEST_F(PerfModuleTest, RepeatedStartsAndStopsWithABadConfigurationAndNoProcRoot)
{
    // 50 ms is below the minimum: the default period (1000 ms) is used.
    Start({{"PeriodMs", "50"}, {"HistoryLength", "none"}, {"ProcRoot", m_Proc.Sub("absent")}});
    for (int round = 0; round < 3; ++round) {
        m_Lib->stop();  // the monitor may still be starting
        ASSERT_EQ(m_Lib->start(), 1);
        EXPECT_EQ(m_Lib->start(), 1);
    }
    EXPECT_TRUE(WaitFor([&] { return NumberOr(kPerf, "Updates", 0) >= 2; }));
    EXPECT_EQ(NumberOr(kPerf, "PeriodMs", 0), 1000u);
    EXPECT_TRUE(SubKeys(kPerf + "\\Network").empty());
    EXPECT_EQ(NumberOr(kPerf + "\\Memory", "CurrentUsage", 0), 0u);  // no sample: 0 or none
    m_Lib->stop();
    m_Lib->unload();
    m_Lib->unload();
}
