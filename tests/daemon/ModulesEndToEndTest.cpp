// End-to-end test of the bundled modules: the real kopd with the real
// framework libswitch.so runs the inventory and performance modules in a
// private mount namespace; their figures reach the registry under the
// namespace's /etc/tarvd, and the operator tools read them back.
#include <gtest/gtest.h>

#include <regex>

#include "KopdTestSupport.h"
#include "support/ChildProcess.h"
#include "modules/ModuleTestSupport.h"

using namespace kopdtest;

namespace {

class ModulesEndToEndTest : public KopdTest {
protected:
    std::string Registry() const { return ReadFile(NsPath("/etc/tarvd/registry")); }
};

/// What `command` printed (stdout and stderr).
std::string ToolOutput(const std::string& command)
{
    std::string out;
    testsupport::Shell(command, &out);
    return out;
}

} // namespace

TEST_F(ModulesEndToEndTest, InventoryAndUsageReachTheRegistryAndSigtermStopsEverything)
{
    ENTER_NAMESPACE();
    SetRunLevel("3\n");  // a simple stop, without waiting for the run level
    const std::string snap = m_Dir.Sub("snap");
    const std::string proc = m_Dir.Sub("proc");
    const std::string mods = m_Dir.Sub("mods");
    modtest::MakeSnapshot(snap);
    modtest::MakeProc(proc);
    ASSERT_TRUE(WriteFile(mods + "/inventory.conf", "[Module]\nLibrary=" + std::string(TEST_INVENTORY_MODULE) +
                                                        "\nOrder=20\nRoot=" + snap +
                                                        "\nRescanSeconds=3600\nVolumeCheckSeconds=3600\n"));
    ASSERT_TRUE(WriteFile(mods + "/perf.conf", "[Module]\nLibrary=" + std::string(TEST_PERF_MODULE) +
                                                   "\nOrder=30\nProcRoot=" + proc + "\nPeriodMs=200\n"));

    Launch l;
    l.args = {"-n"};
    l.switchDir = TEST_FRAMEWORK_DIR;
    l.env = {"TARVD_MODULES_DIR=" + mods};
    pid_t pid = Start(l);
    ASSERT_TRUE(WaitFor([&] {
        std::string r = Registry();
        return Contains(r, "[Inventory]") && Contains(r, "ScanCount=d=1\n") && Contains(r, "[Memory]") &&
               Contains(r, "CurrentUsage=d=75\n") && Contains(r, "Name=s=br0\n");
    })) << Output() << Registry();
    EXPECT_EQ(WaitPidFile(), pid);

    ASSERT_TRUE(SignalAndWaitTaken(pid, SIGTERM));
    EXPECT_EQ(WaitExit(pid), 0) << Output();
    ExpectCleanStop();

    for (const char* section : {"[0000:00:02.0]\n", "[%2Fsrv%2Fdata dir]\n", "[Processes]\n"})
        EXPECT_TRUE(Contains(Registry(), section)) << section << Registry();

#ifdef TEST_KOPREG_PATH
    const std::string kopreg = std::string(TEST_KOPREG_PATH) + " --dir '" + NsPath("/etc/tarvd") + "' ";
    std::string adapters = ToolOutput(kopreg + "list 'HKLM\\SOFTWARE\\Tarvis\\Inventory\\Adapters'");
    for (const char* a : {"0000:00:00.0", "0000:00:01.0", "0000:00:02.0", "0000:00:03.0", "0000:00:04.0",
                          "0000:00:05.0"})
        EXPECT_TRUE(Contains(adapters, std::string("[") + a + "]")) << adapters;
    std::string vendor = ToolOutput(kopreg + "--json get 'HKLM\\SOFTWARE\\Tarvis\\Inventory\\Adapters\\0000:00:02.0' VendorId");
    EXPECT_TRUE(std::regex_search(vendor, std::regex(R"("data"\s*:\s*6900\b)"))) << vendor;  // 0x1af4
    std::string host = ToolOutput(kopreg + "get 'HKLM\\SOFTWARE\\Tarvis\\Inventory\\Drives\\vda' HostAdapter");
    EXPECT_TRUE(Contains(host, "0000:00:02.0")) << host;
    std::string memory = ToolOutput(kopreg + "--json get 'HKLM\\SOFTWARE\\Tarvis\\Performance\\Memory' CurrentUsage");
    EXPECT_TRUE(std::regex_search(memory, std::regex(R"("data"\s*:\s*75\b)"))) << memory;
    std::string net = ToolOutput(kopreg + "get 'HKLM\\SOFTWARE\\Tarvis\\Performance\\Network\\0' Name");
    EXPECT_TRUE(Contains(net, "eth0")) << net;
#endif
#ifdef TEST_KOPHW_PATH
    // The tool sees the same PCI functions in the snapshot as the module published.
    std::string pci = ToolOutput(std::string(TEST_KOPHW_PATH) + " --root '" + snap + "' --json pci");
    for (const char* a : {"0000:00:00.0", "0000:00:02.0", "0000:00:05.0"})
        EXPECT_TRUE(std::regex_search(pci, std::regex(std::string(R"("address"\s*:\s*")") + a + "\"")))
            << a << "\n" << pci;
#endif

    IfTrace([](const std::string& t) {
        for (const char* line : {"InventoryModule     : started", "PerfModule          : started",
                                 "InventoryModule     : notified: daemon is stopping",
                                 "InventoryModule     : stopped after 1 full scan(s)", "PerfModule          : stopped after",
                                 "KOPD-MAIN: ## EXIT PROCESS KOPD ##"})
            EXPECT_TRUE(Contains(t, line)) << line;
    });
}
