// What the metrics module reads from the inventory module's registry keys,
// and the registry's save counters it serves.
#include <cerrno>
#include <fcntl.h>

#include "modules/metrics/Collect.h"
#include "support/RegistryFixture.h"

TEST_F(RegistryTest, InventoryReadBackWithFallbacksAndSavesCounted)
{
    const uint64_t saves = CRegistry::GetSaveCount(), failures = CRegistry::GetSaveFailureCount();
    {
        CRegistry reg;
        auto key = [&](const std::string& path) {
            return reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, ("SOFTWARE\\Tarvis\\Inventory" + path).c_str()) == 0;
        };
        ASSERT_TRUE(key("\\Adapters\\0000:00:1f.2") && reg.SetValue("Slot", 0xFFFFFFFFu) == 0 &&
                    reg.SetValue("VendorId", 0x8086u) == 0);
        ASSERT_TRUE(key("\\Drives\\sda") && reg.SetValue("SizeBytes", "1099511627776") == 0);
        ASSERT_TRUE(key("\\Drives\\sdb") && reg.SetValue("SizeBytes", "12x") == 0 && reg.SetValue("SizeMB", 2u) == 0);
        ASSERT_TRUE(key("\\Volumes\\gone") && reg.SetValue("MountPoint", m_Dir.Sub("gone").c_str()) == 0 &&
                    reg.SetValue("TotalMB", 3u) == 0 && reg.SetValue("AvailableMB", 1u) == 0);
        ASSERT_TRUE(key("\\Volumes\\here") && reg.SetValue("MountPoint", m_Dir.Path().c_str()) == 0);
        ASSERT_TRUE(key("\\Identity\\BIOS") && reg.SetValue("Version", "2.1") == 0);
        ASSERT_TRUE(key("\\Identity\\Memory 01") && reg.SetValue("Installed", 1u) == 0 && reg.SetValue("SizeMB", 1u) == 0);
        ASSERT_TRUE(key("\\Identity\\Memory 02") && reg.SetValue("Installed", 0u) == 0);
        ASSERT_TRUE(key("") && reg.SetValue("LastChange", 7u) == 0);
    }  // the handle saves the tree
    metrics::Snapshot s;
    metrics::CollectInventory(s);
    ASSERT_EQ(s.adapters.size(), 1u);
    EXPECT_EQ(s.adapters[0].pciAddress + "|" + s.adapters[0].slot + "|" + s.adapters[0].vendorId, "0000:00:1f.2||8086");
    ASSERT_EQ(s.drives.size(), 2u);
    EXPECT_EQ(s.drives[0].sizeBytes, 1ull << 40);
    EXPECT_EQ(s.drives[1].sizeBytes, 2ull << 20);  // not a number: the megabytes
    ASSERT_EQ(s.volumes.size(), 2u);
    EXPECT_EQ(s.volumes[0].sizeBytes, 3ull << 20);  // not mounted: the inventory's figures
    EXPECT_GT(s.volumes[1].sizeBytes, 0u);
    ASSERT_TRUE(s.identity);
    EXPECT_EQ(s.identity->biosVersion, "2.1");
    ASSERT_EQ(s.memoryDevices.size(), 1u);
    EXPECT_EQ(s.changeRecords, 7u);

    EXPECT_TRUE(CRegistry::SaveTree());  // nothing to write
    EXPECT_EQ(CRegistry::GetSaveCount(), saves + 1);
    CRegistry::FileOps failing = {[](const char* p, int f, mode_t m) { return ::open(p, f, m); }, ::write, ::fsync,
                                  [](const char*, const char*) { return errno = EIO, -1; }};
    CRegistry::SetFileOps(&failing);
    {
        CRegistry reg;
        ASSERT_EQ(reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "SOFTWARE\\Tarvis\\More"), 0);
    }
    CRegistry::SetFileOps(nullptr);
    EXPECT_EQ(CRegistry::GetSaveCount(), saves + 1);
    EXPECT_EQ(CRegistry::GetSaveFailureCount(), failures + 1);
}
