// End-to-end test of the bundled modules: the real kopd with the real
// framework libswitch.so runs the inventory and performance modules in a
// private mount namespace; their figures reach the registry under the
// namespace's /etc/tarvd, and the operator tools read them back.
#include <gtest/gtest.h>

#include <regex>

#include "KopdTestSupport.h"
#include "modules/ModuleTestSupport.h"
#include "support/ChildProcess.h"

using namespace kopdtest;

using ModulesEndToEndTest = KopdTest;

TEST_F(ModulesEndToEndTest, InventoryAndUsageReachTheRegistryAndSigtermStopsEverything)
{
    SetRunLevel("3\n");  // a simple stop, without waiting for the run level
    const std::string snap = m_Dir.Sub("snap"), proc = m_Dir.Sub("proc"), mods = m_Dir.Sub("mods");
    modtest::MakeSnapshot(snap);
    modtest::MakeProc(proc);
    ASSERT_TRUE(WriteFile(mods + "/inventory.conf", "[Module]\nLibrary=" TEST_INVENTORY_MODULE "\nOrder=20\nRoot=" +
                                                        snap + "\nRescanSeconds=3600\nVolumeCheckSeconds=3600\n"));
    ASSERT_TRUE(WriteFile(mods + "/perf.conf", "[Module]\nLibrary=" TEST_PERF_MODULE "\nOrder=30\nProcRoot=" + proc +
                                                   "\nPeriodMs=200\n"));
    auto registry = [&] { return ReadFile(NsPath("/etc/tarvd/registry")); };
    pid_t pid = Start({"-n"}, {"TARVD_MODULES_DIR=" + mods}, TEST_FRAMEWORK_DIR);
    ASSERT_TRUE(WaitFor([&] {
        std::string r = registry();
        return Contains(r, "[Inventory]") && Contains(r, "ScanCount=d=1\n") && Contains(r, "[Memory]") &&
               Contains(r, "CurrentUsage=d=75\n") && Contains(r, "Name=s=br0\n");
    })) << Output() << registry();
    EXPECT_EQ(WaitPidFile(), pid);
    ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    for (const char* section : {"[0000:00:02.0]\n", "[%2Fsrv%2Fdata dir]\n", "[Processes]\n"})
        EXPECT_TRUE(Contains(registry(), section)) << section << registry();

    // What the tools print: {command, a regular expression it must match}.
    std::vector<std::pair<std::string, std::string>> tools;
#ifdef TEST_KOPREG_PATH
    const std::string kopreg = TEST_KOPREG_PATH " --dir '" + NsPath("/etc/tarvd") + "' ", key = "'HKLM\\SOFTWARE\\Tarvis\\";
    for (const char* a : {"0000:00:00.0", "0000:00:01.0", "0000:00:02.0", "0000:00:03.0", "0000:00:04.0", "0000:00:05.0"})
        tools.push_back({kopreg + "list " + key + "Inventory\\Adapters'", std::string("\\[") + a + "\\]"});
    tools.push_back({kopreg + "--json get " + key + "Inventory\\Adapters\\0000:00:02.0' VendorId",
                     R"("data"\s*:\s*6900\b)"});  // 0x1af4
    tools.push_back({kopreg + "get " + key + "Inventory\\Drives\\vda' HostAdapter", "0000:00:02\\.0"});
    tools.push_back({kopreg + "--json get " + key + "Performance\\Memory' CurrentUsage", R"("data"\s*:\s*75\b)"});
    tools.push_back({kopreg + "get " + key + "Performance\\Network\\0' Name", "eth0"});
#endif
#ifdef TEST_KOPHW_PATH
    // The tool sees the same PCI functions in the snapshot as the module published.
    for (const char* a : {"0000:00:00.0", "0000:00:02.0", "0000:00:05.0"})
        tools.push_back({TEST_KOPHW_PATH " --root '" + snap + "' --json pci", std::string(R"("address"\s*:\s*")") + a});
#endif
    for (const auto& [command, expected] : tools) {
        std::string out;
        Shell(command, &out);
        EXPECT_TRUE(std::regex_search(out, std::regex(expected))) << command << "\n" << out;
    }
    ExpectTraced({"InventoryModule     : started", "PerfModule          : started",
                  "InventoryModule     : notified: daemon is stopping",
                  "InventoryModule     : stopped after 1 full scan(s)", "PerfModule          : stopped after",
                  "KOPD-MAIN: ## EXIT PROCESS KOPD ##"});
}
