// The inventory module, loaded like the framework loads it, run against a
// machine snapshot with the registry in a temporary directory.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "ModuleTestSupport.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/HwPaths.h"

using namespace modtest;
using testsupport::TempDir;

namespace {

const std::string kInv = "SOFTWARE\\Tarvis\\Inventory";
const std::string kAdapters = kInv + "\\Adapters\\";
const std::string kDrives = kInv + "\\Drives\\";
const std::string kVolumes = kInv + "\\Volumes\\";
const std::string kChanges = kInv + "\\Changes";

class InventoryModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Lib.Table()) << m_Lib.Error();
        CRegistry::SetRegistryDirectory(m_Registry.Path().c_str());
        MakeSnapshot(m_Root.Path());
    }
    void TearDown() override
    {
        CRegistry::ResetForTests();
        EXPECT_EQ(hwinfo::GetRootDirectory(), "");  // the module restored the process's root
    }

    std::map<std::string, std::string> Values(const std::string& startupDelay = "3600")
    {
        return {{"Root", m_Root.Path()},
                {"RescanSeconds", "3600"},
                {"VolumeCheckSeconds", "3600"},
                {"StartupDelaySeconds", startupDelay},
                {"MaxChanges", "100"}};
    }

    /// Load, start, wait until ScanCount reaches `scans`, stop (timed), unload.
    void RunUntilScanned(const ModuleConfig& config, uint32_t scans)
    {
        ASSERT_EQ(m_Lib->load(config.Get()), 1);
        long long startMs = TimedMs([&] { ASSERT_EQ(m_Lib->start(), 1); });
        EXPECT_LT(startMs, 2000);  // the scan runs on the module's thread
        EXPECT_TRUE(WaitFor([&] { return NumberOr(kInv, "ScanCount", 0) >= scans; }))
            << "ScanCount " << NumberOr(kInv, "ScanCount", 0);
        EXPECT_LT(TimedMs([&] { m_Lib->stop(); }), 2000);
        m_Lib->unload();
    }

    TempDir m_Root;
    TempDir m_Registry;
    ModuleLibrary m_Lib{TEST_INVENTORY_MODULE};
};

} // namespace

TEST_F(InventoryModuleTest, PublishesAdaptersDrivesAndVolumesOfTheSnapshot)
{
    ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
    RunUntilScanned(config, 1);

    std::vector<std::string> adapters = SubKeys(kInv + "\\Adapters");
    std::vector<std::string> expected = {"0000:00:00.0", "0000:00:01.0", "0000:00:02.0",
                                         "0000:00:03.0", "0000:00:04.0", "0000:00:05.0"};
    EXPECT_EQ(adapters, expected);
    std::string bridge = kAdapters + "0000:00:00.0";
    EXPECT_EQ(NumberOr(bridge, "VendorId", 0), 0x8086u);
    EXPECT_EQ(NumberOr(bridge, "DeviceId", 0), 0x0d57u);
    EXPECT_EQ(NumberOr(bridge, "BaseClass", 0), 6u);
    EXPECT_EQ(TextOr(bridge, "PciAddress"), "0000:00:00.0");
    EXPECT_EQ(TextOr(bridge, "Ids"), "8086:0d57");
    EXPECT_EQ(TextOr(bridge, "ClassName"), CPciCommonConfigHeader::GetPciBaseClassDescription(6));
    EXPECT_NE(TextOr(bridge, "SubClassName"), "<none>");
    EXPECT_NE(TextOr(bridge, "Name"), "<none>");
    // Typed values: numbers are type 4, texts type 1 (ReadNumber/ReadText check).
    EXPECT_EQ(NumberOr(bridge, "Slot", 7), 0xFFFFFFFFu);  // not in the firmware's slot list
    std::string block = kAdapters + "0000:00:02.0";
    EXPECT_EQ(NumberOr(block, "VendorId", 0), 0x1af4u);
    EXPECT_EQ(NumberOr(block, "DeviceId", 0), 0x1042u);
    EXPECT_EQ(NumberOr(block, "Slot", 7), 0u);  // onboard device of the firmware table
    EXPECT_EQ(NumberOr(kAdapters + "0000:00:03.0", "BaseClass", 0), 2u);

    EXPECT_EQ(SubKeys(kInv + "\\Drives"), std::vector<std::string>{"vda"});
    EXPECT_EQ(TextOr(kDrives + "vda", "Model"), "Virtual Disk");
    EXPECT_EQ(TextOr(kDrives + "vda", "HostAdapter"), "0000:00:02.0");
    EXPECT_EQ(NumberOr(kDrives + "vda", "SizeMB", 0), 10240u);
    EXPECT_EQ(TextOr(kDrives + "vda", "SizeBytes"), std::to_string(10ull << 30));

    std::vector<std::string> volumes = SubKeys(kInv + "\\Volumes");
    EXPECT_EQ(volumes, (std::vector<std::string>{"%2F", "%2Fboot", "%2Fsrv%2Fdata dir"}));
    EXPECT_EQ(TextOr(kVolumes + "%2F", "MountPoint"), "/");
    EXPECT_EQ(TextOr(kVolumes + "%2F", "Device"), "/dev/vda1");
    EXPECT_EQ(TextOr(kVolumes + "%2Fsrv%2Fdata dir", "MountPoint"), "/srv/data dir");
    EXPECT_EQ(TextOr(kVolumes + "%2Fboot", "FileSystem"), "xfs");

    EXPECT_EQ(NumberOr(kInv, "AdapterCount", 0), 6u);
    EXPECT_EQ(NumberOr(kInv, "DriveCount", 0), 1u);
    EXPECT_EQ(NumberOr(kInv, "VolumeCount", 0), 3u);
    EXPECT_EQ(TextOr(kInv, "Root"), m_Root.Path());
    EXPECT_TRUE(std::regex_match(TextOr(kInv, "LastScan"), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
    // The first inventory is taken as it is: no changes.
    EXPECT_TRUE(SubKeys(kChanges).empty());

    // It was saved: a fresh load from the directory has it.
    CRegistry::SetRegistryDirectory(m_Registry.Path().c_str());
    EXPECT_EQ(SubKeys(kInv + "\\Adapters").size(), 6u);
    EXPECT_EQ(TextOr(kVolumes + "%2Fsrv%2Fdata dir", "MountPoint"), "/srv/data dir");
}

TEST_F(InventoryModuleTest, SecondScanOfAChangedMachineRecordsTheChanges)
{
    {
        ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
        RunUntilScanned(config, 1);
    }
    // The RNG function is gone, a network card came in, the block device's
    // slot became 5, the disk is gone and /boot is no longer mounted.
    const std::string root = m_Root.Path();
    ASSERT_EQ(unlink((root + "/proc/bus/pci/00/05.0").c_str()), 0);
    ASSERT_TRUE(testsupport::WriteFile(root + "/proc/bus/pci/00/07.0", hwtest::Str(PciHeader(0x8086, 0x10d3, 2, 0))));
    WriteSlotTable(root, 2, 5);
    testsupport::RemoveTree(root + "/sys/block/vda");
    ASSERT_TRUE(testsupport::WriteFile(root + "/proc/self/mounts", "/dev/vda1 / ext4 rw 0 0\n"
                                                                   "/dev/vda3 /srv/data\\040dir ext4 rw 0 0\n"));
    {
        // Without the force flag but with no start-up delay: scanned at once.
        ModuleConfig config(Values("0"), 0);
        RunUntilScanned(config, 2);
    }
    std::vector<std::string> changes = SubKeys(kChanges);
    std::string all;
    for (const std::string& c : changes)
        all += TextOr(kChanges + "\\" + c, "Kind") + " " + TextOr(kChanges + "\\" + c, "Object") + " (" +
               TextOr(kChanges + "\\" + c, "Detail") + ")\n";
    ASSERT_EQ(changes.size(), 5u) << all;
    std::set<std::string> seen;
    for (size_t i = 0; i < changes.size(); ++i) {
        char name[32];
        snprintf(name, sizeof name, "%010zu", i + 1);
        EXPECT_EQ(changes[i], name);
        std::string key = kChanges + "\\" + changes[i];
        EXPECT_TRUE(std::regex_match(TextOr(key, "Time"), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
        EXPECT_NE(TextOr(key, "Detail"), "<none>");
        seen.insert(TextOr(key, "Kind") + " " + TextOr(key, "Object"));
    }
    std::set<std::string> expected = {"AdapterRemoved 0000:00:05.0", "AdapterAdded 0000:00:07.0",
                                      "AdapterMoved 0000:00:02.0", "DriveRemoved vda", "VolumeRemoved /boot"};
    EXPECT_EQ(seen, expected);
    for (const std::string& c : changes) {
        if (TextOr(kChanges + "\\" + c, "Kind") == "AdapterMoved") {
            EXPECT_EQ(TextOr(kChanges + "\\" + c, "Detail"), "slot 0 -> slot 5");
        }
    }
    EXPECT_EQ(NumberOr(kInv, "LastChange", 0), 5u);

    // The published inventory is the new one.
    std::vector<std::string> adapters = SubKeys(kInv + "\\Adapters");
    EXPECT_EQ(adapters, (std::vector<std::string>{"0000:00:00.0", "0000:00:01.0", "0000:00:02.0", "0000:00:03.0",
                                                  "0000:00:04.0", "0000:00:07.0"}));
    EXPECT_EQ(NumberOr(kAdapters + "0000:00:02.0", "Slot", 0), 5u);
    EXPECT_EQ(NumberOr(kAdapters + "0000:00:07.0", "VendorId", 0), 0x8086u);
    EXPECT_TRUE(SubKeys(kInv + "\\Drives").empty());
    EXPECT_EQ(SubKeys(kInv + "\\Volumes").size(), 2u);
    EXPECT_EQ(NumberOr(kInv, "ScanCount", 0), 2u);
}

TEST_F(InventoryModuleTest, UnchangedMachineRecordsNothingAndOnlyTheLatestChangesAreKept)
{
    {
        ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
        RunUntilScanned(config, 1);
    }
    {
        ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
        RunUntilScanned(config, 2);
    }
    EXPECT_TRUE(SubKeys(kChanges).empty());
    // Four disks come, only the last two changes stay.
    for (const char* disk : {"vdb", "vdc", "vdd", "vde"})
        WriteDisk(m_Root.Path(), disk, "0000:00:02.0", "More", 2048);
    auto values = Values();
    values["MaxChanges"] = "2";
    ModuleConfig config(values, TARVD_FLAG_FORCE_RESCAN);
    RunUntilScanned(config, 3);
    EXPECT_EQ(SubKeys(kChanges), (std::vector<std::string>{"0000000003", "0000000004"}));
    EXPECT_EQ(TextOr(kChanges + "\\0000000004", "Object"), "vde");
    EXPECT_EQ(TextOr(kChanges + "\\0000000004", "Kind"), "DriveAdded");
    EXPECT_EQ(NumberOr(kInv, "LastChange", 0), 4u);
    EXPECT_EQ(SubKeys(kInv + "\\Drives").size(), 5u);
}

TEST_F(InventoryModuleTest, WithoutForceRescanTheStoredInventoryIsKeptUntilTheStartupDelay)
{
    {
        ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
        RunUntilScanned(config, 1);
    }
    // The machine changed, but without -rescan the stored inventory stays
    // until the start-up delay (an hour here) has passed.
    ASSERT_EQ(unlink((m_Root.Path() + "/proc/bus/pci/00/05.0").c_str()), 0);
    ModuleConfig config(Values("3600"), 0);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);
    ASSERT_EQ(m_Lib->start(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(TimedMs([&] { m_Lib->stop(); }), 2000);
    m_Lib->unload();
    EXPECT_EQ(NumberOr(kInv, "ScanCount", 0), 1u);
    EXPECT_EQ(SubKeys(kInv + "\\Adapters").size(), 6u);
    EXPECT_TRUE(SubKeys(kChanges).empty());
}

TEST_F(InventoryModuleTest, DaemonStoppingNotificationEndsNewScans)
{
    {
        ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
        RunUntilScanned(config, 1);
    }
    // First scan due one second after start; the daemon announces its stop
    // at once, so no scan may follow.
    ModuleConfig config(Values("1"), 0);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);
    ASSERT_EQ(m_Lib->start(), 1);
    m_Lib->notify(TARVD_EVENT_DAEMON_STOPPING, nullptr);
    int32_t level = 0;
    m_Lib->notify(TARVD_EVENT_OS_SHUTDOWN, &level);
    m_Lib->notify(0x12345, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_LT(TimedMs([&] { m_Lib->stop(); }), 2000);
    m_Lib->unload();
    EXPECT_EQ(NumberOr(kInv, "ScanCount", 0), 1u);
}

TEST_F(InventoryModuleTest, StopsPromptlyWhileScanningAndCanStartAgain)
{
    ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);  // a second load changes nothing
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(m_Lib->start(), 1);
        EXPECT_EQ(m_Lib->start(), 1);  // already running
        // Stopped at once: the scan may be anywhere.
        EXPECT_LT(TimedMs([&] { m_Lib->stop(); }), 2000);
        m_Lib->stop();  // a second stop is harmless
    }
    ASSERT_EQ(m_Lib->start(), 1);
    EXPECT_TRUE(WaitFor([&] { return NumberOr(kInv, "ScanCount", 0) >= 1; }));
    m_Lib->stop();
    m_Lib->unload();
    m_Lib->unload();  // nothing left to unload
    // Whatever was published is complete: a scan cut short is not published.
    uint32_t count = NumberOr(kInv, "AdapterCount", 0);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(SubKeys(kInv + "\\Adapters").size(), count);
}

TEST_F(InventoryModuleTest, BadConfigurationValuesFallBackToDefaults)
{
    auto values = Values();
    values["RescanSeconds"] = "soon";
    values["VolumeCheckSeconds"] = "-5";
    values["MaxChanges"] = "0";
    values["ScanTimeoutSeconds"] = "99999999999999999999";
    ModuleConfig config(values, TARVD_FLAG_FORCE_RESCAN);
    RunUntilScanned(config, 1);
    EXPECT_EQ(NumberOr(kInv, "AdapterCount", 0), 6u);
}

TEST_F(InventoryModuleTest, EmptyMachineRootPublishesAnEmptyInventory)
{
    TempDir empty;
    auto values = Values();
    values["Root"] = empty.Path();
    ModuleConfig config(values, TARVD_FLAG_FORCE_RESCAN);
    RunUntilScanned(config, 1);
    EXPECT_EQ(NumberOr(kInv, "AdapterCount", 7), 0u);
    EXPECT_EQ(NumberOr(kInv, "DriveCount", 7), 0u);
    EXPECT_EQ(NumberOr(kInv, "VolumeCount", 7), 0u);
}
