// The inventory's key names, its comparison of two inventories and its
// registry form.
#include <gtest/gtest.h>

#include "ModuleTestSupport.h"
#include "modules/common/ModuleSettings.h"
#include "modules/inventory/InventoryModel.h"
#include "support/RegistryFixture.h"

using namespace inventory;
using namespace modtest;
using testsupport::Contains;

namespace {

Properties Adapter(uint32_t vendor, uint32_t device, uint32_t slot, uint32_t subVendor = 0)
{
    return {{"VendorId", Value::Number(vendor)},   {"DeviceId", Value::Number(device)},
            {"SubVendorId", Value::Number(subVendor)}, {"SubDeviceId", Value::Number(0)},
            {"Slot", Value::Number(slot)},         {"Name", Value::Text("card")}};
}

std::vector<std::string> Kinds(const std::vector<Change>& changes)
{
    std::vector<std::string> out;
    for (const Change& c : changes)
        out.push_back(std::string(ChangeKindName(c.kind)) + " " + c.object);
    return out;
}

} // namespace

TEST(InventoryNames, EscapingKeepsOneComponentAndRoundTripsAndTextsAreMadeSafe)
{
    EXPECT_EQ(EscapeKeyName("/"), "%2F");
    EXPECT_EQ(EscapeKeyName("/mnt/a b"), "%2Fmnt%2Fa b");
    EXPECT_EQ(EscapeKeyName("a\\b[c]=d%e"), "a%5Cb%5Bc%5D%3Dd%25e");
    EXPECT_EQ(EscapeKeyName(std::string("x\ny\r\x7f\xc3\xa9", 7)), "x%0Ay%0D%7F%C3%A9");
    for (std::string text : {std::string("/srv/%2F/x"), std::string("\x01]["), std::string(""), std::string("%")}) {
        std::string name = EscapeKeyName(text);
        EXPECT_EQ(name.find_first_of("/\\[]=\n"), std::string::npos) << name;
        EXPECT_EQ(UnescapeKeyName(name), text);
    }
    // Malformed escapes stay as they are, and nothing is read past the end.
    EXPECT_EQ(UnescapeKeyName("%"), "%");
    EXPECT_EQ(UnescapeKeyName("a%4"), "a%4");
    EXPECT_EQ(UnescapeKeyName("%zz%41"), "%zzA");
    EXPECT_EQ(SanitizeText("Disk\nA\r\t"), "Disk?A??");
    EXPECT_EQ(SanitizeText(std::string(5000, 'x')).size(), kMaxText);
    EXPECT_EQ(SanitizeText("plain text"), "plain text");
}

TEST(InventoryCompare, AdaptersAddedRemovedAndMoved)
{
    Category stored = {{"0000:00:01.0", Adapter(0x8086, 1, 1)},
                       {"0000:00:02.0", Adapter(0x8086, 2, kNoSlot)},
                       {"0000:01:00.0", Adapter(0x10df, 3, 2)},
                       {"0000:02:00.0", Adapter(0x1000, 4, 3)}};
    Category now = {{"0000:00:01.0", Adapter(0x8086, 1, 4)},            // same card, other slot
                    {"0000:00:02.0", Adapter(0x8086, 9, kNoSlot)},      // another card at the address
                    {"0000:05:00.0", Adapter(0x10df, 3, 6)},            // the 01:00.0 card, moved
                    {"0000:06:00.0", Adapter(0x15b3, 5, 7)}};           // new
    std::vector<Change> changes = CompareAdapters(stored, now);
    std::vector<std::string> expected = {"AdapterMoved 0000:00:01.0", "AdapterRemoved 0000:00:02.0",
                                         "AdapterAdded 0000:00:02.0", "AdapterRemoved 0000:02:00.0",
                                         "AdapterAdded 0000:06:00.0", "AdapterMoved 0000:05:00.0"};
    EXPECT_EQ(Kinds(changes), expected);
    EXPECT_EQ(changes[0].detail, "slot 1 -> slot 4");
    EXPECT_EQ(changes[5].detail, "0000:01:00.0 slot 2 -> 0000:05:00.0 slot 6");
    EXPECT_TRUE(Contains(changes[3].detail, "1000:0004") && Contains(changes[3].detail, "slot 3")) << changes[3].detail;
    EXPECT_TRUE(CompareAdapters(stored, stored).empty() && CompareAdapters({}, {}).empty());
}

TEST(InventoryCompare, AdaptersOfTheSameKindPairOnlyOnce)
{
    // Two equal cards went, one came back elsewhere: one move, one removal.
    Category stored = {{"0000:01:00.0", Adapter(1, 1, 1)}, {"0000:02:00.0", Adapter(1, 1, 2)}};
    Category now = {{"0000:03:00.0", Adapter(1, 1, 3)}};
    EXPECT_EQ(Kinds(CompareAdapters(stored, now)),
              (std::vector<std::string>{"AdapterRemoved 0000:02:00.0", "AdapterMoved 0000:03:00.0"}));
    // A different subsystem is a different card.
    Category other = {{"0000:03:00.0", Adapter(1, 1, 3, 7)}};
    EXPECT_EQ(CompareAdapters(stored, other).size(), 3u);
}

TEST(InventoryCompare, DrivesAndVolumes)
{
    Category storedDrives = {{"sda", {{"HostAdapter", Value::Text("0000:00:1f.2")}}},
                             {"sdb", {{"HostAdapter", Value::Text("0000:00:1f.2")}}}};
    Category nowDrives = {{"sda", {{"HostAdapter", Value::Text("0000:3b:00.0")}}},
                          {"sdc", {{"HostAdapter", Value::Text("0000:00:1f.2")}, {"Model", Value::Text("M")}}}};
    auto d = CompareDrives(storedDrives, nowDrives);
    EXPECT_EQ(Kinds(d), (std::vector<std::string>{"DriveMoved sda", "DriveRemoved sdb", "DriveAdded sdc"}));
    EXPECT_EQ(d[0].detail, "host adapter 0000:00:1f.2 -> 0000:3b:00.0");

    Category storedVolumes = {{"%2F", {{"Device", Value::Text("/dev/sda1")}}},
                              {"%2Fboot", {{"Device", Value::Text("/dev/sda2")}}}};
    Category nowVolumes = {{"%2F", {{"Device", Value::Text("/dev/sdb1")}}},
                           {"%2Fmnt%2Fx", {{"Device", Value::Text("/dev/sdc1")}}}};
    auto v = CompareVolumes(storedVolumes, nowVolumes);
    EXPECT_EQ(Kinds(v), (std::vector<std::string>{"VolumeChanged /", "VolumeRemoved /boot", "VolumeAdded /mnt/x"}));
    EXPECT_EQ(v[0].detail, "/dev/sda1 -> /dev/sdb1");
}

TEST_F(RegistryTest, CategoryWrittenExactlyAndUnchangedDataLeavesTheTreeClean)
{
    Category items = {{"a", {{"N", Value::Number(0xFFFFFFFFu)}, {"T", Value::Text("text")}}},
                      {"b", {{"N", Value::Number(2)}}}};
    auto write = [](const Category& c) { return WriteCategory(*std::make_unique<CRegistry>(), kDrivesKey, c); };
    ASSERT_TRUE(write(items));
    EXPECT_FALSE(CRegistry::IsDirty());  // saved when the handle went
    {
        CRegistry reg;
        Category back;
        ASSERT_TRUE(ReadCategory(reg, kDrivesKey, back));
        EXPECT_EQ(back, items);
        ASSERT_TRUE(WriteCategory(reg, kDrivesKey, items));
        EXPECT_FALSE(CRegistry::IsDirty());  // nothing differed: no save needed
    }
    // Stale keys and values go; the new value types replace the old ones.
    Category next = {{"b", {{"N", Value::Text("two")}}}, {"c", {}}};
    ASSERT_TRUE(write(next));
    CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());  // reload from the file
    CRegistry reg;
    Category back;
    ASSERT_TRUE(ReadCategory(reg, kDrivesKey, back));
    EXPECT_EQ(back, next);
    Category none;
    EXPECT_FALSE(ReadCategory(reg, kVolumesKey, none));
    EXPECT_TRUE(none.empty());
}

TEST_F(RegistryTest, ChangesAreNumberedOnAndTheOldestDropped)
{
    CRegistry reg;
    std::vector<Change> three = {{ChangeKind::DriveAdded, "sda", "d1"},
                                 {ChangeKind::DriveRemoved, "sdb", "d2\nsecond line"},
                                 {ChangeKind::VolumeAdded, "/", "d3"}};
    EXPECT_EQ(RecordChanges(reg, {}, "t0", 4), 0u);
    EXPECT_EQ(RecordChanges(reg, three, "2024-01-02T03:04:05Z", 4), 3u);
    EXPECT_EQ(RecordChanges(reg, three, "2024-01-02T03:04:06Z", 4), 6u);
    EXPECT_EQ(RecordChanges(reg, {}, "t1", 4), 6u);
    EXPECT_EQ(SubKeys(std::string(kInventoryKey) + "\\Changes"),
              (std::vector<std::string>{"0000000003", "0000000004", "0000000005", "0000000006"}));
    std::string key = std::string(kInventoryKey) + "\\Changes\\0000000005";
    EXPECT_EQ(TextOr(key, "Kind"), "DriveRemoved");
    EXPECT_EQ(TextOr(key, "Object"), "sdb");
    EXPECT_EQ(TextOr(key, "Detail"), "d2?second line");
    EXPECT_EQ(TextOr(key, "Time"), "2024-01-02T03:04:06Z");
    EXPECT_EQ(NumberOr(kInventoryKey, "LastChange", 0), 6u);
    // keep 0 is taken as 1
    EXPECT_EQ(RecordChanges(reg, three, "t2", 0), 9u);
    EXPECT_EQ(SubKeys(std::string(kInventoryKey) + "\\Changes"), std::vector<std::string>{"0000000009"});
}

TEST(ModuleSettings, NumbersAreCheckedAndFallBack)
{
    ModuleConfig config({{"A", "12"}, {"B", "x"}, {"C", "-1"}, {"D", "5000"}, {"E", ""}, {"F", "7 "}});
    for (auto [key, value, bad] : {std::tuple{"A", 12u, false}, {"missing", 9u, false}, {"B", 9u, true},
                                   {"C", 9u, true}, {"D", 9u, true}, {"E", 9u, true}, {"F", 9u, true}}) {
        bool flagged = false;
        EXPECT_EQ(tarvdmod::ConfigNumber(config.Get(), key, 9, 0, 100, &flagged), value) << key;
        EXPECT_EQ(flagged, bad) << key;
    }
    EXPECT_EQ(tarvdmod::IsoTimeUtc(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(tarvdmod::IsoTimeUtc(1700000000), "2023-11-14T22:13:20Z");
}
