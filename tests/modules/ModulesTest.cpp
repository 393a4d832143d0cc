// The bundled modules: the inventory's key names, comparison and registry form, then the
// inventory and performance modules, loaded as the framework loads them, on a machine snapshot.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>

#include "ModuleTestSupport.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/HwPaths.h"
#include "modules/common/ModuleSettings.h"

using namespace hwtest;
using namespace modtest;
using testsupport::Contains;
using testsupport::NumberOr;
using testsupport::SubKeys;
using testsupport::TextOr;
using testsupport::TempDir;

namespace {

using namespace inventory;
const std::string kInv = kInventoryKey;
const std::string kAdapters = kInv + "\\Adapters\\";
const std::string kDrives = kInv + "\\Drives\\";
const std::string kVolumes = kInv + "\\Volumes\\";
const std::string kChanges = kInv + "\\Changes";
const std::string kIdentity = kInv + "\\Identity\\";
const std::regex kTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
using Names = std::vector<std::string>;

Properties Adapter(uint32_t vendor, uint32_t device, uint32_t slot, uint32_t subVendor = 0)
{
    return {{"VendorId", Value::Number(vendor)},   {"DeviceId", Value::Number(device)},
            {"SubVendorId", Value::Number(subVendor)}, {"SubDeviceId", Value::Number(0)},
            {"Slot", Value::Number(slot)},         {"Name", Value::Text("card")}};
}

Names Kinds(const std::vector<Change>& changes)
{
    Names out;
    for (const Change& c : changes)
        out.push_back(std::string(ChangeKindName(c.kind)) + " " + c.object);
    return out;
}

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

} // namespace

TEST(InventoryNames, EscapingKeepsOneComponentAndRoundTripsAndTextsAreMadeSafe)
{
    for (auto [text, name] : {std::pair<std::string, std::string>{"/", "%2F"}, {"/mnt/a b", "%2Fmnt%2Fa b"},
                              {"a\\b[c]=d%e", "a%5Cb%5Bc%5D%3Dd%25e"}, {"x\ny\r\x7f\xc3\xa9", "x%0Ay%0D%7F%C3%A9"},
                              {"/srv/%2F/x", ""}, {"\x01][", ""}, {"", ""}, {"%", ""}}) {
        const std::string escaped = EscapeKeyName(text);
        EXPECT_TRUE(name.empty() || escaped == name) << escaped;
        EXPECT_EQ(escaped.find_first_of("/\\[]=\n"), std::string::npos) << escaped;
        EXPECT_EQ(UnescapeKeyName(escaped), text);
    }
    // Malformed escapes stay as they are, and nothing is read past the end.
    EXPECT_EQ(UnescapeKeyName("%") + UnescapeKeyName("a%4") + UnescapeKeyName("%zz%41"), "%a%4%zzA");
    EXPECT_EQ(SanitizeText("Disk\nA\r\t"), "Disk?A??");
    EXPECT_EQ(SanitizeText(std::string(5000, 'x')).size(), kMaxText);
}

TEST(InventoryCompare, AdaptersAddedRemovedAndMovedEachPairedOnlyOnce)
{
    Category stored = {{"0000:00:01.0", Adapter(0x8086, 1, 1)}, {"0000:00:02.0", Adapter(0x8086, 2, kNoSlot)},
                       {"0000:01:00.0", Adapter(0x10df, 3, 2)}, {"0000:02:00.0", Adapter(0x1000, 4, 3)}};
    Category now = {{"0000:00:01.0", Adapter(0x8086, 1, 4)},            // same card, other slot
                    {"0000:00:02.0", Adapter(0x8086, 9, kNoSlot)},      // another card at the address
                    {"0000:05:00.0", Adapter(0x10df, 3, 6)},            // the 01:00.0 card, moved
                    {"0000:06:00.0", Adapter(0x15b3, 5, 7)}};           // new
    std::vector<Change> changes = CompareAdapters(stored, now);
    EXPECT_EQ(Kinds(changes), (Names{"AdapterMoved 0000:00:01.0", "AdapterRemoved 0000:00:02.0",
                                     "AdapterAdded 0000:00:02.0", "AdapterRemoved 0000:02:00.0",
                                     "AdapterAdded 0000:06:00.0", "AdapterMoved 0000:05:00.0"}));
    EXPECT_EQ(changes[0].detail, "slot 1 -> slot 4");
    EXPECT_EQ(changes[5].detail, "0000:01:00.0 slot 2 -> 0000:05:00.0 slot 6");
    EXPECT_TRUE(Contains(changes[3].detail, "1000:0004") && Contains(changes[3].detail, "slot 3")) << changes[3].detail;
    EXPECT_TRUE(CompareAdapters(stored, stored).empty() && CompareAdapters({}, {}).empty());
    // Two equal cards went, one came back elsewhere: one move, one removal.
    Category two = {{"0000:01:00.0", Adapter(1, 1, 1)}, {"0000:02:00.0", Adapter(1, 1, 2)}};
    EXPECT_EQ(Kinds(CompareAdapters(two, {{"0000:03:00.0", Adapter(1, 1, 3)}})),
              (Names{"AdapterRemoved 0000:02:00.0", "AdapterMoved 0000:03:00.0"}));
    // A different subsystem is a different card.
    EXPECT_EQ(CompareAdapters(two, {{"0000:03:00.0", Adapter(1, 1, 3, 7)}}).size(), 3u);
}

TEST(InventoryCompare, DrivesAndVolumes)
{
    auto at = [](const char* adapter) { return Properties{{"HostAdapter", Value::Text(adapter)}}; };
    Category storedDrives = {{"sda", at("0000:00:1f.2")}, {"sdb", at("0000:00:1f.2")}};
    Category nowDrives = {{"sda", at("0000:3b:00.0")},
                          {"sdc", {{"HostAdapter", Value::Text("0000:00:1f.2")}, {"Model", Value::Text("M")}}}};
    auto d = CompareDrives(storedDrives, nowDrives);
    EXPECT_EQ(Kinds(d), (Names{"DriveMoved sda", "DriveRemoved sdb", "DriveAdded sdc"}));
    EXPECT_EQ(d[0].detail, "host adapter 0000:00:1f.2 -> 0000:3b:00.0");

    auto on = [](const char* device) { return Properties{{"Device", Value::Text(device)}}; };
    Category storedVolumes = {{"%2F", on("/dev/sda1")}, {"%2Fboot", on("/dev/sda2")}};
    Category nowVolumes = {{"%2F", on("/dev/sdb1")}, {"%2Fmnt%2Fx", on("/dev/sdc1")}};
    auto v = CompareVolumes(storedVolumes, nowVolumes);
    EXPECT_EQ(Kinds(v), (Names{"VolumeChanged /", "VolumeRemoved /boot", "VolumeAdded /mnt/x"}));
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
    Category next = {{"b", {{"N", Value::Text("two")}}}, {"c", {}}};
    ASSERT_TRUE(write(next));
    CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());  // reload from the file
    CRegistry reg;
    Category back;
    ASSERT_TRUE(ReadCategory(reg, kDrivesKey, back));
    EXPECT_EQ(back, next);
    EXPECT_FALSE(ReadCategory(reg, kVolumesKey, back));
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
    EXPECT_EQ(SubKeys(kChanges), (Names{"0000000003", "0000000004", "0000000005", "0000000006"}));
    EXPECT_EQ(RecordedChanges(true)[2], "DriveRemoved sdb d2?second line");  // change 5
    EXPECT_EQ(NumberOr(kInventoryKey, "LastChange", 0), 6u);
    EXPECT_EQ(RecordChanges(reg, three, "t2", 0), 9u);  // keep 0 is taken as 1
    EXPECT_EQ(SubKeys(kChanges), Names{"0000000009"});
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
    EXPECT_EQ(tarvdmod::IsoTimeUtc(1700000000), "2023-11-14T22:13:20Z");
}

namespace {

class InventoryModuleTest : public RegistryTest {
protected:
    void SetUp() override
    {
        RegistryTest::SetUp();
        ASSERT_TRUE(m_Lib.Table()) << dlerror();
        MakeSnapshot(m_Root.Path());
    }
    void TearDown() override
    {
        RegistryTest::TearDown();
        EXPECT_EQ(hwinfo::GetRootDirectory(), "");  // the module restored the process's root
    }

    /// The configuration: the defaults below unless `v` names the key.
    std::map<std::string, std::string> Values(std::map<std::string, std::string> v = {})
    {
        v.insert({{"Root", m_Root.Path()}, {"RescanSeconds", "3600"}, {"VolumeCheckSeconds", "3600"},
                  {"StartupDelaySeconds", "3600"}, {"MaxChanges", "100"}});
        return v;
    }

    /// Load, start, wait until ScanCount reaches `scans` (the scan runs on the module's thread),
    /// stop, unload. With no `scans`, runs `ms` instead and checks that no scan followed.
    void Run(const std::map<std::string, std::string>& values, uint32_t flags, uint32_t scans, int ms = 0,
             bool announceStop = false)
    {
        const uint32_t before = NumberOr(kInv, "ScanCount", 0);
        ModuleConfig config(values, flags);
        ASSERT_EQ(m_Lib->load(config.Get()), 1);
        ASSERT_EQ(m_Lib->start(), 1);
        int32_t level = 0;
        if (announceStop) {
            m_Lib->notify(TARVD_EVENT_DAEMON_STOPPING, nullptr);
            m_Lib->notify(TARVD_EVENT_OS_SHUTDOWN, &level);
            m_Lib->notify(0x12345, nullptr);
        }
        EXPECT_TRUE(!scans || WaitFor([&] { return NumberOr(kInv, "ScanCount", 0) >= scans; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        m_Lib->stop();
        m_Lib->unload();
        EXPECT_EQ(NumberOr(kInv, "ScanCount", 0), scans ? scans : before);
    }

    TempDir m_Root;
    ModuleLibrary m_Lib{TEST_INVENTORY_MODULE};
};

} // namespace

TEST_F(InventoryModuleTest, PublishesTheWholeSnapshotAfterStopsWhileScanning)
{
    ModuleConfig config(Values(), TARVD_FLAG_FORCE_RESCAN);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);
    ASSERT_EQ(m_Lib->load(config.Get()), 1);  // a second load changes nothing
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(m_Lib->start(), 1);
        EXPECT_EQ(m_Lib->start(), 1);  // already running
        m_Lib->stop();                 // at once: the scan may be anywhere
        m_Lib->stop();                 // a second stop is harmless
    }
    ASSERT_EQ(m_Lib->start(), 1);
    EXPECT_TRUE(WaitFor([&] { return NumberOr(kInv, "ScanCount", 0) >= 1; }));
    m_Lib->stop();
    m_Lib->unload();
    m_Lib->unload();  // nothing left to unload
    // What was published is whole: a scan cut short is not published.
    EXPECT_EQ(SubKeys(kInv + "\\Adapters"), (Names{"0000:00:00.0", "0000:00:01.0", "0000:00:02.0", "0000:00:03.0",
                                                   "0000:00:04.0", "0000:00:05.0"}));
    // Typed values: numbers type 4, texts type 1.  Slot: 0:0.0 is not in the
    // firmware's slot list, 0:2.0 is an onboard device of it.
    const std::string host = kAdapters + "0000:00:00.0";
    for (auto [key, name, number] : {std::tuple{host, "VendorId", 0x8086u}, {host, "Slot", 0xFFFFFFFFu},
                                     {kAdapters + "0000:00:02.0", "Slot", 0u}, {kDrives + "vda", "SizeMB", 10240u},
                                     {kInv, "AdapterCount", 6u}, {kInv, "DriveCount", 1u}, {kInv, "VolumeCount", 3u}})
        EXPECT_EQ(NumberOr(key, name, 7), number) << key << " " << name;
    EXPECT_EQ(TextOr(host, "ClassName"), CPciCommonConfigHeader::GetPciBaseClassDescription(6));
    EXPECT_EQ(TextOr(kDrives + "vda", "HostAdapter") + " " + TextOr(kDrives + "vda", "SizeBytes"),
              "0000:00:02.0 " + std::to_string(10ull << 30));
    EXPECT_EQ(SubKeys(kInv + "\\Volumes"), (Names{"%2F", "%2Fboot", "%2Fsrv%2Fdata dir"}));
    EXPECT_TRUE(std::regex_match(TextOr(kInv, "LastScan"), kTime));
    EXPECT_TRUE(SubKeys(kChanges).empty());  // the first inventory is taken as it is

    CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());  // saved: a fresh load has it
    EXPECT_EQ(TextOr(kVolumes + "%2Fsrv%2Fdata dir", "MountPoint"), "/srv/data dir");
}

TEST_F(InventoryModuleTest, ChangesAreRecordedWhenTheNextScanIsDueAndOnlyTheLatestAreKept)
{
    // Bad values fall back to the defaults; an unchanged machine records nothing.
    Run(Values({{"RescanSeconds", "soon"}, {"VolumeCheckSeconds", "-5"}, {"MaxChanges", "0"},
                {"ScanTimeoutSeconds", "99999999999999999999"}}),
        TARVD_FLAG_FORCE_RESCAN, 1);
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 2);
    EXPECT_TRUE(SubKeys(kChanges).empty());
    // The RNG function is gone, a network card came in, the block device's
    // slot became 5, the disk is gone and /boot is no longer mounted.
    const std::string root = m_Root.Path();
    ASSERT_EQ(unlink((root + "/proc/bus/pci/00/05.0").c_str()), 0);
    ASSERT_TRUE(WriteFile(root + "/proc/bus/pci/00/07.0", Str(PciConfig(0x8086, 0x10d3, 2, 0))));
    // A conventional PCI slot (type 0x06: only its own device) 5 for bus 0 device 2.
    Bytes table = Concat({SlotStructure(0x0900, 0x06, 4, 5, 0, 2 << 3), EndOfTable(1)});
    WriteSmbios(root, Str(EntryPoint30(static_cast<uint32_t>(table.size()), 0x20)), Str(table));
    testsupport::RemoveTree(root + "/sys/block/vda");
    ASSERT_TRUE(WriteFile(root + "/proc/self/mounts",
                          "/dev/vda1 / ext4 rw 0 0\n/dev/vda3 /srv/data\\040dir ext4 rw 0 0\n"));
    // Without -rescan the stored inventory stays until the start-up delay (an hour here) has
    // passed, and no scan follows the daemon's announced stop, not even one due after a second.
    Run(Values(), 0, 0, 300);
    Run(Values({{"StartupDelaySeconds", "1"}}), 0, 0, 1500, true);
    EXPECT_TRUE(SubKeys(kChanges).empty());
    Run(Values({{"StartupDelaySeconds", "0"}}), 0, 3);  // no start-up delay: scanned at once

    // Which changes, each once (their details are the comparison's); the time is the scan's.
    const Names changes = RecordedChanges();
    EXPECT_EQ(std::set<std::string>(changes.begin(), changes.end()),
              (std::set<std::string>{"AdapterRemoved 0000:00:05.0", "AdapterAdded 0000:00:07.0",
                                     "AdapterMoved 0000:00:02.0", "DriveRemoved vda", "VolumeRemoved /boot"}));
    EXPECT_TRUE(std::regex_match(TextOr(kChanges + "\\0000000005", "Time"), kTime));
    EXPECT_EQ(NumberOr(kAdapters + "0000:00:02.0", "Slot", 0), 5u);
    EXPECT_TRUE(SubKeys(kInv + "\\Drives").empty());
    // Four disks come, only the last two changes stay.
    for (const char* disk : {"vdb", "vdc", "vdd", "vde"})
        WriteDisk(m_Root.Path(), disk, 2048);
    Run(Values({{"MaxChanges", "2"}}), TARVD_FLAG_FORCE_RESCAN, 4);
    EXPECT_EQ(SubKeys(kChanges), (Names{"0000000008", "0000000009"}));
    EXPECT_EQ(RecordedChanges().back(), "DriveAdded vde");
    // An empty machine root publishes an empty inventory.
    TempDir empty;
    Run(Values({{"Root", empty.Path()}}), TARVD_FLAG_FORCE_RESCAN, 5);
    for (const char* count : {"AdapterCount", "DriveCount", "VolumeCount"})
        EXPECT_EQ(NumberOr(kInv, count, 7), 0u) << count;
}

TEST_F(InventoryModuleTest, IdentityPublishedAndEachChangeRecordedOnce)
{
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 1);
    EXPECT_EQ(TextOr(kIdentity + "Chassis", "TypeName"), "Desktop") << TextOr(kIdentity + "Chassis", "Type");
    const std::string version = TextOr(kIdentity + "BIOS", "Version");
    ASSERT_FALSE(version.empty());
    EXPECT_TRUE(SubKeys(kChanges).empty());  // the first identity is taken as it is

    // A BIOS update (the last character of the version string) and a module taken out.
    std::string dmi = ReadFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable);
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
    WriteFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable, dmi);
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 2);
    const Names two = {"IdentityChanged BIOS", "MemoryRemoved " + memoryKey};
    EXPECT_EQ(RecordedChanges(), two);
    EXPECT_NE(TextOr(kChanges + "\\0000000001", "Detail").find("Version: " + version + " -> "), std::string::npos);
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 3);  // nothing new: nothing recorded again
    EXPECT_EQ(RecordedChanges(), two);

    // The module is back; then a table without an identity leaves the stored one.
    dmi.replace(dimm + 0x0C, 2, size);
    WriteFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable, dmi);
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 4);
    EXPECT_EQ(RecordedChanges().back(), "MemoryAdded " + memoryKey);
    WriteFile(m_Root.Path() + hwinfo::kSysfsSmbiosTable, std::string(64, '\x7f'));
    Run(Values(), TARVD_FLAG_FORCE_RESCAN, 5);
    const Names changes = RecordedChanges();
    ASSERT_GE(changes.size(), 3u);
    for (size_t i = 3; i < changes.size(); ++i)  // the slots the table gave go; the identity stays
        EXPECT_EQ(changes[i].rfind("Adapter", 0), 0u) << changes[i];
    EXPECT_EQ(NumberOr(kIdentity + memoryKey, "Installed", 0), 1u);
}

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
    /// Loads and starts the module with `values` (unless named: the proc and sys roots, a 100 ms
    /// period, published every period).
    void Start(std::map<std::string, std::string> values = {})
    {
        values.insert({{"PeriodMs", "100"}, {"ProcRoot", m_Proc.Path()}, {"SysRoot", m_Proc.Sub("sys")},
                       {"PublishSeconds", "0"}});
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
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentUsage", 75) && WaitNumber("\\Memory", "CurrentSwapUsage", 50));
    EXPECT_TRUE(WaitNumber("\\System", "AverageKernel", 0));  // the counters stand still
    EXPECT_TRUE(WaitFor([&] { return TextOr(kPerf + "\\Network\\1", "Name") == "br0"; }));
    EXPECT_EQ(SubKeys(kPerf + "\\Network"), (std::vector<std::string>{"0", "1"}));  // lo is not monitored
    EXPECT_TRUE(std::regex_match(TextOr(kPerf, "LastUpdate"), kTime));
    // Memory as free(1) shows it, and every interface under its own name; speeds only where known.
    // Rates come with the second reading (0: the counters stand still).
    const std::string mem = kPerf + "\\Memory", links = kPerf + "\\Interfaces\\";
    EXPECT_TRUE(WaitFor([&] { return TextOr(links + "enp3s0", "SentBytesPerSecond") == "0"; }));
    EXPECT_EQ(NumberOr(mem, "UsedPercent", 999), 40u);
    EXPECT_EQ(TextOr(mem, "TotalBytes") + " " + TextOr(mem, "AvailableBytes") + " " + TextOr(mem, "UsedBytes") + " " +
                  TextOr(mem, "SwapTotalBytes") + " " + TextOr(mem, "SwapUsedBytes"),
              "1024000 614400 409600 2048000 1024000");
    EXPECT_EQ(SubKeys(kPerf + "\\Interfaces"), (std::vector<std::string>{"br0", "enp3s0", "eth0", "lo"}));
    EXPECT_EQ(TextOr(links + "enp3s0", "ReceivedBytes") + " " + TextOr(links + "enp3s0", "ReceivedBytesPerSecond"),
              "5000000000 0");
    EXPECT_EQ(NumberOr(links + "eth0", "LinkSpeedMbps", 0) + NumberOr(links + "enp3s0", "LinkSpeedMbps", 0), 1000u);

    // A change of the machine shows within a few periods; the average follows (5 samples).
    WriteFile(m_Proc.Sub("meminfo"), "MemTotal: 1000 kB\nMemFree: 500 kB\nMemAvailable: 500 kB\nSwapTotal: 2000 kB\n"
                                     "SwapFree: 2000 kB\n");
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentUsage", 50) && WaitNumber("\\Memory", "AverageUsage", 50));
    EXPECT_TRUE(WaitNumber("\\Memory", "CurrentSwapUsage", 0) && WaitNumber("\\Memory", "UsedPercent", 50));
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
    // Published at the start, then every PublishSeconds (out of range: the default, a minute).
    Start({{"PublishSeconds", "86401"}});
    EXPECT_TRUE(WaitFor([&] { return NumberOr(kPerf, "Updates", 0) == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // three periods
    EXPECT_EQ(NumberOr(kPerf, "Updates", 0), 1u);
    m_Lib->unload();
}
