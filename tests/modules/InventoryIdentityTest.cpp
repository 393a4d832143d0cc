// The inventory module publishes the machine identity from the snapshot's
// SMBIOS table and records each change of it exactly once: a BIOS update, a
// memory module taken out and put back; a table that gives no identity
// changes nothing.
#include <gtest/gtest.h>

#include "ModuleTestSupport.h"
#include "hwinfo/HwPaths.h"
#include "modules/inventory/InventoryModel.h"
#include "support/RegistryFixture.h"

using namespace modtest;
using testsupport::NumberOr;
using testsupport::SubKeys;
using testsupport::TextOr;

namespace {

const std::string kInv = inventory::kInventoryKey;
const std::string kIdentity = kInv + "\\Identity\\";
const std::string kChanges = kInv + "\\Changes";

/// Offset of the first structure of `type` with a formatted field at `field`, and of its strings.
std::pair<size_t, size_t> Find(const std::string& t, uint8_t type, uint8_t field)
{
    size_t pos = 0;
    while (pos + 4 <= t.size()) {
        size_t strings = pos + static_cast<uint8_t>(t[pos + 1]);
        size_t next = t.find(std::string("\0\0", 2), strings);
        // A memory device counts only when it holds a module (size word non-zero).
        bool holds = type != 17 || t[pos + 0x0C] != 0 || t[pos + 0x0D] != 0;
        if (static_cast<uint8_t>(t[pos]) == type && static_cast<uint8_t>(t[pos + 1]) > field && holds)
            return {pos, strings};
        pos = next + 2;
    }
    ADD_FAILURE() << "no structure of type " << int(type);
    return {0, 0};
}

class InventoryIdentityTest : public RegistryTest {
protected:
    void SetUp() override
    {
        RegistryTest::SetUp();
        ASSERT_TRUE(m_Lib.Table()) << dlerror();
        MakeSnapshot(m_Root.Path());
        m_Dmi = ReadFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable);
    }
    /// One start of the module until its scan number `scans` is published.
    void Scan(uint32_t scans)
    {
        ModuleConfig config({{"Root", m_Root.Path()}, {"RescanSeconds", "3600"}, {"VolumeCheckSeconds", "3600"},
                             {"StartupDelaySeconds", "3600"}},
                            TARVD_FLAG_FORCE_RESCAN);
        ASSERT_EQ(m_Lib->load(config.Get()), 1);
        ASSERT_EQ(m_Lib->start(), 1);
        EXPECT_TRUE(WaitFor([&] { return NumberOr(kInv, "ScanCount", 0) >= scans; }));
        m_Lib->stop();
        m_Lib->unload();
    }
    void SetTable(const std::string& dmi) { WriteFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable, dmi); }
    std::vector<std::string> Changes()
    {
        std::vector<std::string> out;
        for (const std::string& c : SubKeys(kChanges))
            out.push_back(TextOr(kChanges + "\\" + c, "Kind") + " " + TextOr(kChanges + "\\" + c, "Object"));
        return out;
    }

    testsupport::TempDir m_Root;
    ModuleLibrary m_Lib{TEST_INVENTORY_MODULE};
    std::string m_Dmi;
};

} // namespace

TEST_F(InventoryIdentityTest, PublishedAndEachChangeRecordedOnce)
{
    Scan(1);
    EXPECT_EQ(TextOr(kIdentity + "System", "Manufacturer"), "Dell Inc.");
    EXPECT_EQ(TextOr(kIdentity + "Chassis", "TypeName"), "Desktop") << TextOr(kIdentity + "Chassis", "Type");
    const std::string version = TextOr(kIdentity + "BIOS", "Version");
    ASSERT_FALSE(version.empty());
    EXPECT_TRUE(SubKeys(kChanges).empty());  // the first identity is taken as it is

    // A BIOS update (the last character of the version string) and a module taken out.
    std::string dmi = m_Dmi;
    auto [bios, biosStrings] = Find(dmi, 0, 0x05);
    size_t at = dmi.find(version, biosStrings) + version.size() - 1;
    dmi[at] = dmi[at] == 'X' ? 'Y' : 'X';
    auto [dimm, dimmStrings] = Find(dmi, 17, 0x0D);
    const std::string size = dmi.substr(dimm + 0x0C, 2);
    dmi[dimm + 0x0C] = dmi[dimm + 0x0D] = 0;
    std::string memoryKey;
    for (const std::string& key : SubKeys(kInv + "\\Identity"))
        if (key.rfind("Memory ", 0) == 0 && NumberOr(kIdentity + key, "Installed", 0) && memoryKey.empty())
            memoryKey = key;
    SetTable(dmi);
    Scan(2);
    const std::vector<std::string> two = {"IdentityChanged BIOS", "MemoryRemoved " + memoryKey};
    EXPECT_EQ(Changes(), two);
    EXPECT_NE(TextOr(kChanges + "\\0000000001", "Detail").find("Version: " + version + " -> "), std::string::npos);
    Scan(3);  // nothing new: nothing recorded again
    EXPECT_EQ(Changes(), two);

    // The module is back; then a table without an identity leaves the stored one.
    dmi.replace(dimm + 0x0C, 2, size);
    SetTable(dmi);
    Scan(4);
    EXPECT_EQ(Changes().back(), "MemoryAdded " + memoryKey);
    SetTable(std::string(64, '\x7f'));
    Scan(5);
    const std::vector<std::string> changes = Changes();
    ASSERT_GE(changes.size(), 3u);
    for (size_t i = 3; i < changes.size(); ++i)  // the slots the table gave go; the identity stays
        EXPECT_EQ(changes[i].rfind("Adapter", 0), 0u) << changes[i];
    EXPECT_EQ(NumberOr(kIdentity + memoryKey, "Installed", 0), 1u);
}
