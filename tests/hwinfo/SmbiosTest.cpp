// SMBIOS acquisition sources, revision and the structure walk.
#include <gtest/gtest.h>

#include "HwTestUtil.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/CSMBiosInternal.h"

using namespace hwtest;

namespace {

struct FixtureCase {
    const char* name;
    int major;
    int minor;
    size_t structures;
    size_t type9;
    size_t type41;
    std::vector<PciSlotData> slots;
};

PciSlotData S(uint8_t bus, uint8_t dev, uint8_t slot, uint8_t type)
{
    PciSlotData d;
    d.bus = bus;
    d.device = dev;
    d.slot = slot;
    d.type = type;
    return d;
}

std::vector<PciSlotData> Onboard(uint8_t bus, std::vector<uint8_t> devices)
{
    std::vector<PciSlotData> v;
    for (uint8_t d : devices)
        v.push_back(S(bus, d, 0, 2));
    return v;
}

std::vector<FixtureCase> Cases()
{
    std::vector<FixtureCase> c;
    c.push_back({"supermicro-x10dal-i", 3, 0, 102, 5, 2,
                 {S(1, 0, 1, 0xB6), S(2, 0, 3, 0xB6), S(3, 0, 5, 0xB6), S(5, 0, 0, 2), S(6, 0, 0, 2)}});
    c.push_back({"dell-poweredge-r777sd", 3, 2, 77, 4, 6,
                 {S(0xAF, 0, 4, 0xB1), S(0x18, 0, 0, 2), S(0x18, 0, 0, 2), S(0x19, 0, 0, 2), S(0x19, 0, 0, 2),
                  S(0x3B, 0, 0, 2), S(0x03, 0, 0, 2)}});
    c.push_back({"dell-precision-3620", 3, 0, 99, 5, 5,
                 {S(1, 0, 1, 0xB1), S(5, 0, 4, 0xB0), S(2, 0, 5, 0x17), S(0, 2, 0, 2), S(0, 19, 0, 2),
                  S(0, 27, 0, 2), S(0, 31, 0, 2), S(0, 31, 0, 2)}});
    c.push_back({"lenovo-thinkpad-2347a49", 2, 7, 69, 2, 0, {S(0, 0, 1, 0xA5), S(0, 0, 2, 0x01)}});
    FixtureCase beelink{"beelink-eq12", 3, 5, 72, 5, 15, {}};
    for (int i = 0; i < 5; ++i)
        beelink.slots.push_back(S(0, 0, 1, 0xA6));
    for (const PciSlotData& d : Onboard(0, {0, 2, 20, 20, 20, 21, 21, 22, 23, 30, 30, 31, 31, 31, 31}))
        beelink.slots.push_back(d);
    c.push_back(beelink);
    FixtureCase toshiba{"toshiba-satellite-pro-l70a", 2, 7, 69, 8, 1, {S(0, 1, 1, 0xAA)}};
    for (uint8_t s = 2; s <= 7; ++s)
        toshiba.slots.push_back(S(0, 28, s, 0xA6));
    toshiba.slots.push_back(S(0, 28, 8, 0xAA));
    toshiba.slots.push_back(S(0, 0, 0, 2));
    c.push_back(toshiba);
    return c;
}

Bytes ReadFixture(const std::string& name)
{
    std::string s = testsupport::ReadFile(testsupport::FixturesDir() + "/smbios/" + name);
    return Bytes(s.begin(), s.end());
}

bool SameSlot(const PciSlotData& a, const PciSlotData& b)
{
    return a.bus == b.bus && a.device == b.device && a.slot == b.slot && a.type == b.type;
}

} // namespace

TEST(SmbiosFixtures, EachDumpParsesThroughSysfs)
{
    for (const FixtureCase& c : Cases()) {
        SCOPED_TRACE(c.name);
        FakeRoot root;
        Bytes ep = ReadFixture(std::string(c.name) + ".ep");
        Bytes dmi = ReadFixture(std::string(c.name) + ".dmi");
        ASSERT_FALSE(ep.empty());
        ASSERT_FALSE(dmi.empty());
        root.SetSysfsSmbios(ep, dmi);

        CSMBios smbios;
        ASSERT_TRUE(smbios.Connect()) << smbios.GetLastErrorText();
        EXPECT_EQ(c.major, smbios.GetMajor());
        EXPECT_EQ(c.minor, smbios.GetMinor());
        EXPECT_EQ(c.structures, smbios.GetIndexedCount());
        EXPECT_EQ(c.structures, smbios.GetExpectedStructureCount());
        EXPECT_EQ(c.type9, smbios.GetStructures(9).size());
        EXPECT_EQ(c.type41, smbios.GetStructures(41).size());
        EXPECT_TRUE(smbios.GetStructures(200).empty());
        for (const CByteReader& s : smbios.GetStructures(9))
            EXPECT_EQ(9, CSMBios::HeaderOf(s).type);

        std::vector<PciSlotData> slots = CPciSlotMap::GetSlotMappingFromSMBIOS();
        ASSERT_EQ(c.slots.size(), slots.size());
        for (size_t i = 0; i < slots.size(); ++i)
            EXPECT_TRUE(SameSlot(c.slots[i], slots[i])) << i << ": " << slots[i].ToString();

        smbios.Disconnect();
        EXPECT_TRUE(smbios.GetData().IsEmpty());
        EXPECT_TRUE(smbios.GetStructures(9).empty());
        EXPECT_EQ(0, smbios.GetMajor());
    }
}

TEST(SmbiosFixtures, TruncatedTablesNeverReadOutside)
{
    // Every prefix length class of a real table: the walk must stay inside
    // its buffer (the sanitizer build checks) and fail or succeed cleanly.
    Bytes dmi = ReadFixture("dell-poweredge-r777sd.dmi");
    ASSERT_GT(dmi.size(), 100u);
    for (size_t len = 1; len < dmi.size(); len += (len < 64 ? 1 : 37)) {
        CSMBios s;
        s.SetTables(CDataStream(), CDataStream(dmi.data(), len));
        s.buildStructureList();
        for (const CByteReader& r : s.GetStructures(9))
            (void)r.U8Or(0x0F, 0xFF);
    }
}

// --- revision ---------------------------------------------------------------

namespace {
CSMBios WithHeader(const Bytes& header)
{
    CSMBios s;
    s.SetTables(CDataStream(header.data(), header.size()), CDataStream());
    s.setSmbiosRevisionFromHeader();
    return s;
}
} // namespace

TEST(SmbiosRevision, FromEachAnchor)
{
    CSMBios a = WithHeader(EntryPoint21(0, 0, 0, 2, 8));
    EXPECT_EQ(2, a.GetMajor());
    EXPECT_EQ(8, a.GetMinor());
    CSMBios b = WithHeader(EntryPoint30(0, 0, 3, 4));
    EXPECT_EQ(3, b.GetMajor());
    EXPECT_EQ(4, b.GetMinor());
    // "UEFI": the bytes at 4 and 5 in swapped order.
    CSMBios c = WithHeader({'U', 'E', 'F', 'I', 0x07, 0x02, 0, 0});
    EXPECT_EQ(2, c.GetMajor());
    EXPECT_EQ(7, c.GetMinor());
}

TEST(SmbiosRevision, UnknownShortOrEmptyHeaderStaysZero)
{
    for (const Bytes& h : {Bytes{'_', 'X', 'X', '_', 1, 2, 3, 4, 5}, Bytes{'_', 'S', 'M', '_'}, Bytes{'_', 'S', 'M', '3', '_'},
                           Bytes{}}) {
        CSMBios s = WithHeader(h);
        EXPECT_EQ(0, s.GetMajor());
        EXPECT_EQ(0, s.GetMinor());
    }
}

TEST(SmbiosRevision, UnknownAnchorStillBuildsTheList)
{
    FakeRoot root;
    Bytes table = Concat({Structure(1, 0, {1, 2}), EndOfTable(1)});
    root.SetSysfsSmbios({'J', 'U', 'N', 'K', 'J', 'U', 'N', 'K'}, table);
    CSMBios s;
    EXPECT_TRUE(s.Connect());
    EXPECT_EQ(0, s.GetMajor());
    EXPECT_EQ(2u, s.GetIndexedCount());
}

// --- structure walk -----------------------------------------------------------

namespace {
CSMBios Walk(const Bytes& table, uint16_t expected = 0, bool* ok = nullptr)
{
    CSMBios s;
    s.SetTables(CDataStream(), CDataStream(table.data(), table.size()));
    s.SetExpectedStructureCount(expected);
    bool r = s.buildStructureList();
    if (ok)
        *ok = r;
    return s;
}
} // namespace

TEST(SmbiosWalk, EmptyDataFails)
{
    bool ok = true;
    CSMBios s = Walk({}, 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ("## ERROR! SMBIOS structures are not set", s.GetLastErrorText());
}

TEST(SmbiosWalk, FormattedAreaPastTheEndIsFatal)
{
    Bytes first = Structure(1, 0x10, {1, 2, 3});
    Bytes second = {2, 0x40, 0x22, 0x00, 1, 2, 3, 4};
    bool ok = true;
    CSMBios s = Walk(Concat({first, second}), 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while going to struct end!\n"
              "   struct[1], last type=0x02, last handle=34\n   struct Offset 0x0009",
              s.GetLastErrorText());
    // What was appended before the fault stays (the faulty one included).
    EXPECT_EQ(1u, s.GetStructures(1).size());
    EXPECT_EQ(1u, s.GetStructures(2).size());
}

TEST(SmbiosWalk, StringSetWithoutDoubleNulIsFatal)
{
    Bytes first = Structure(1, 0x10, {1, 2, 3});
    Bytes second = {4, 0x05, 0x07, 0x00, 0xAA, 'a', 'b', 0, 'c', 'd'};  // no double NUL
    bool ok = true;
    CSMBios s = Walk(Concat({first, second}), 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while when string table end found!\n"
              "   struct[1], type=0x04, handle=7\n   struct Offset 0x0009",
              s.GetLastErrorText());

    // A single NUL as the very last byte is not a double NUL either.
    Bytes third = {4, 0x05, 0x07, 0x00, 0xAA, 'a', 0};
    CSMBios s2 = Walk(Concat({first, third}), 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_NE(std::string::npos, s2.GetLastErrorText().find("while when string table end found"));

    // A formatted area that ends exactly at the table end.
    Bytes fourth = {4, 0x05, 0x07, 0x00, 0xAA};
    CSMBios s3 = Walk(Concat({first, fourth}), 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_NE(std::string::npos, s3.GetLastErrorText().find("while when string table end found"));
}

TEST(SmbiosWalk, TableEndingAfterDoubleNulWithoutEndMarker)
{
    bool ok = false;
    Bytes t = Concat({Structure(0, 0, {1, 2}, {"BIOS", "1.0"}), Structure(1, 1, {}), Structure(0xC0, 2, {5})});
    CSMBios s = Walk(t, 0, &ok);
    EXPECT_TRUE(ok) << s.GetLastErrorText();
    EXPECT_EQ(3u, s.GetIndexedCount());
    EXPECT_EQ(3, s.GetExpectedStructureCount());
}

TEST(SmbiosWalk, CountRuleAndTheEndMarkerAsymmetry)
{
    bool ok = false;
    // End marker last: the count is the number visited.
    Bytes last = Concat({Structure(1, 0, {}), Structure(2, 1, {}), EndOfTable(2)});
    CSMBios a = Walk(last, 0, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(3u, a.GetIndexedCount());
    EXPECT_EQ(3, a.GetExpectedStructureCount());

    // End marker followed by more bytes: the walk stops there and counts one more.
    Bytes trailing = last;
    Bytes junk = Structure(3, 9, {1, 2, 3});
    trailing.insert(trailing.end(), junk.begin(), junk.end());
    CSMBios b = Walk(trailing, 0, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(3u, b.GetIndexedCount());
    EXPECT_TRUE(b.GetStructures(3).empty());
    EXPECT_EQ(4, b.GetExpectedStructureCount());

    // A count from the entry point is kept, also when it differs.
    CSMBios c = Walk(last, 7, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(7, c.GetExpectedStructureCount());
}

// --- sysfs source ---------------------------------------------------------------

TEST(SmbiosSysfs, MissingOrEmptyFilesFailAndLeaveOutputs)
{
    FakeRoot root;
    CDataStream h(std::string("old").data(), 3);
    CDataStream d(std::string("data").data(), 4);
    EXPECT_FALSE(CBiosTables::GetAnySMBiosFromSysfs(h, d));
    root.Write("/sys/firmware/dmi/tables/smbios_entry_point", std::string("_SM3_xxx"));
    EXPECT_FALSE(CBiosTables::GetAnySMBiosFromSysfs(h, d));
    root.Write("/sys/firmware/dmi/tables/DMI", std::string());
    EXPECT_FALSE(CBiosTables::GetAnySMBiosFromSysfs(h, d));
    EXPECT_EQ(3u, h.GetSize());
    EXPECT_EQ(4u, d.GetSize());
    root.Write("/sys/firmware/dmi/tables/DMI", std::string("\x7f\x04\x00\x00\x00\x00", 6));
    EXPECT_TRUE(CBiosTables::GetAnySMBiosFromSysfs(h, d));
    EXPECT_EQ(8u, h.GetSize());
    EXPECT_EQ(6u, d.GetSize());
}

// --- UEFI memory source -----------------------------------------------------------

namespace {
constexpr uint64_t kEp3Addr = 0x30010;
constexpr uint64_t kEp2Addr = 0x31000;
constexpr uint32_t kTable3Addr = 0x40123;
constexpr uint32_t kTable2Addr = 0x50000;

Bytes Table3() { return Concat({Structure(1, 0, {3}), EndOfTable(1)}); }
Bytes Table2() { return Concat({Structure(1, 0, {2}), Structure(2, 1, {2}), EndOfTable(2)}); }

void MemoryWithBoth(FakeRoot& root)
{
    root.MakeMemory();
    root.Poke(kEp3Addr, EntryPoint30(static_cast<uint32_t>(Table3().size()), kTable3Addr));
    root.Poke(kTable3Addr, Table3());
    root.Poke(kEp2Addr, EntryPoint21(static_cast<uint16_t>(Table2().size()), kTable2Addr, 3));
    root.Poke(kTable2Addr, Table2());
}
} // namespace

TEST(SmbiosMemory, Version3PreferredWhenBothArePublished)
{
    FakeRoot root;
    MemoryWithBoth(root);
    root.Write("/sys/firmware/efi/systab", std::string("ACPI20=0x7ff00000\nSMBIOS=0x31000\nSMBIOS3=0x30010\n"));
    CDataStream h, d;
    ASSERT_TRUE(CBiosTables::GetAnySMBiosFromMemory(h, d));
    EXPECT_EQ(24u, h.GetSize());
    EXPECT_TRUE(h.Reader().Matches(0, "_SM3_", 5));
    EXPECT_EQ(Table3().size(), d.GetSize());

    // The whole chain finds it when sysfs has nothing.
    CSMBios s;
    ASSERT_TRUE(s.Connect());
    EXPECT_EQ(3, s.GetMajor());
    EXPECT_EQ(2u, s.GetIndexedCount());
}

TEST(SmbiosMemory, ExactKeyMatchAndTheProcFallback)
{
    FakeRoot root;
    MemoryWithBoth(root);
    // Only the 2.1 key, in the older /proc file: "SMBIOS" must not be taken
    // for "SMBIOS3", so the first attempt fails and the second finds it.
    root.Write("/proc/efi/systab", std::string("SMBIOS=0x31000\n"));
    EXPECT_EQ(0u, smbios_tables::SMBiosTableFromMemoryV3().GetUEFIAddress());
    EXPECT_EQ(kEp2Addr, smbios_tables::SMBiosTableFromMemoryV2().GetUEFIAddress());
    CDataStream h, d;
    ASSERT_TRUE(CBiosTables::GetAnySMBiosFromMemory(h, d));
    EXPECT_EQ(31u, h.GetSize());
    EXPECT_EQ(Table2().size(), d.GetSize());

    // A key that only starts like the wanted one does not match either.
    root.Write("/proc/efi/systab", std::string("SMBIOS3X=0x30010\nSMBIOS=12345\n"));
    EXPECT_EQ(0u, smbios_tables::SMBiosTableFromMemoryV3().GetUEFIAddress());
    EXPECT_EQ(12345u, smbios_tables::SMBiosTableFromMemoryV2().GetUEFIAddress());  // decimal without "0x"
}

TEST(SmbiosMemory, ZeroAddressCountsAsNotFound)
{
    FakeRoot root;
    MemoryWithBoth(root);
    root.Write("/sys/firmware/efi/systab", std::string("SMBIOS3=0\nSMBIOS=0x0\n"));
    CDataStream h, d;
    EXPECT_FALSE(CBiosTables::GetAnySMBiosFromMemory(h, d));
    EXPECT_TRUE(h.IsEmpty());
}

TEST(SmbiosMemory, EntryPointWithLengthOrAddressZeroFails)
{
    FakeRoot root;
    root.MakeMemory();
    root.Write("/sys/firmware/efi/systab", std::string("SMBIOS3=0x30010\n"));
    root.Poke(kEp3Addr, EntryPoint30(0, kTable3Addr));
    root.Poke(kTable3Addr, Table3());
    CDataStream h, d;
    EXPECT_FALSE(smbios_tables::SMBiosTableFromMemoryV3().GetBiosData(h, d));
    root.Poke(kEp3Addr, EntryPoint30(static_cast<uint32_t>(Table3().size()), 0));
    EXPECT_FALSE(smbios_tables::SMBiosTableFromMemoryV3().GetBiosData(h, d));
    EXPECT_TRUE(h.IsEmpty());
    EXPECT_TRUE(d.IsEmpty());
    EXPECT_EQ(0u, smbios_tables::SMBiosTableFromMemoryV3().GetDataLength(nullptr));
    EXPECT_EQ(0u, smbios_tables::SMBiosTableFromMemoryV2().GetDataAddress(nullptr));
}

TEST(SmbiosMemory, TableBeyondTheSnapshotFailsCleanly)
{
    FakeRoot root;
    root.MakeMemory(0x40000);
    root.Write("/sys/firmware/efi/systab", std::string("SMBIOS3=0x30010\n"));
    root.Poke(kEp3Addr, EntryPoint30(0x1000, 0x3FF00));  // runs past the file's end
    CDataStream h, d;
    EXPECT_FALSE(smbios_tables::SMBiosTableFromMemoryV3().GetBiosData(h, d));
    root.Write("/sys/firmware/efi/systab", std::string("SMBIOS3=0x7FFFFFF0\n"));  // header outside
    EXPECT_FALSE(smbios_tables::SMBiosTableFromMemoryV3().GetBiosData(h, d));
}

// --- ESX device ------------------------------------------------------------------

TEST(SmbiosEsx, ShortHeaderFails)
{
    FakeRoot root;
    CDataStream h, d;
    EXPECT_FALSE(CBiosTables::GetBiosTableESX(h, d));  // no device: not ESX
    root.Write("/vmfs/devices/char/mem/smbios", std::string(30, 'x'));
    EXPECT_FALSE(CBiosTables::GetBiosTableESX(h, d));
    EXPECT_TRUE(h.IsEmpty());
}

TEST(SmbiosEsx, TablePlusSlackAndShortTable)
{
    FakeRoot root;
    Bytes table = Concat({Structure(1, 0, {1}), EndOfTable(1)});
    Bytes ep = EntryPoint21(static_cast<uint16_t>(table.size()), 0, 2);
    Bytes trailing(32, 0xEE);
    root.Write("/vmfs/devices/char/mem/smbios", Concat({ep, table, trailing, Bytes(10, 0xDD)}));
    CDataStream h, d;
    ASSERT_TRUE(CBiosTables::GetBiosTableESX(h, d));
    EXPECT_EQ(31u, h.GetSize());
    EXPECT_EQ(table.size() + 32, d.GetSize());
    EXPECT_EQ(0xEE, d.Reader().U8Or(table.size() + 31));

    // Exactly the table: fewer than T + 32 is fine as long as T arrived.
    root.Write("/vmfs/devices/char/mem/smbios", Concat({ep, table}));
    ASSERT_TRUE(CBiosTables::GetBiosTableESX(h, d));
    EXPECT_EQ(table.size(), d.GetSize());

    // Less than T: no data.
    CDataStream h2, d2;
    root.Write("/vmfs/devices/char/mem/smbios", Concat({ep, Bytes(table.begin(), table.end() - 1)}));
    EXPECT_FALSE(CBiosTables::GetBiosTableESX(h2, d2));
    EXPECT_TRUE(d2.IsEmpty());
}

// --- BIOS shadow scan --------------------------------------------------------------

namespace {
constexpr uint32_t kShadowTable = 0x90000;
Bytes ShadowTable() { return Concat({Structure(1, 0, {1}), Structure(9, 1, {}), EndOfTable(2)}); }

void ShadowAt(FakeRoot& root, uint64_t address, Bytes ep)
{
    root.MakeMemory();
    root.Poke(kShadowTable, ShadowTable());
    root.Poke(address, ep);
}
Bytes ShadowEp() { return EntryPoint21(static_cast<uint16_t>(ShadowTable().size()), kShadowTable, 5); }
} // namespace

TEST(SmbiosShadow, AnchorOnAParagraphIsFound)
{
    FakeRoot root;
    ShadowAt(root, 0xF5A40, ShadowEp());
    root.Poke(0xE0003, {'_', 'S', 'M', '_'});  // off a boundary: ignored
    CSMBios s;
    CDataStream h, d;
    ASSERT_TRUE(s.getSmbiosDataFromBiosShadowMemory(h, d)) << s.GetLastErrorText();
    EXPECT_EQ(31u, h.GetSize());
    EXPECT_EQ(ShadowTable().size(), d.GetSize());
    EXPECT_EQ(5, s.GetExpectedStructureCount());

    // Through Connect (nothing else present): the header's count is kept.
    CSMBios c;
    ASSERT_TRUE(c.Connect());
    EXPECT_EQ(2, c.GetMajor());
    EXPECT_EQ(7, c.GetMinor());
    EXPECT_EQ(5, c.GetExpectedStructureCount());
    EXPECT_EQ(3u, c.GetIndexedCount());
}

TEST(SmbiosShadow, AnchorOffAParagraphOrInTheLastSixteenBytesIsNotFound)
{
    for (uint64_t where : {uint64_t{0xF5A48}, uint64_t{0xFFFF0}}) {
        FakeRoot root;
        ShadowAt(root, where, ShadowEp());
        CSMBios s;
        CDataStream h, d;
        EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
        EXPECT_EQ("No SMBIOS structures found!", s.GetLastErrorText());
        EXPECT_TRUE(d.IsEmpty());
    }
}

TEST(SmbiosShadow, BadChecksumYieldsNoHeader)
{
    FakeRoot root;
    Bytes ep = ShadowEp();
    ep[0x1D] ^= 0x01;
    ShadowAt(root, 0xF0000, ep);
    CSMBios s;
    CDataStream h, d;
    EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
    EXPECT_TRUE(h.IsEmpty());
    EXPECT_TRUE(d.IsEmpty());
}

TEST(SmbiosShadow, EntryLengthZeroStoresAnEmptyHeader)
{
    FakeRoot root;
    Bytes ep = ShadowEp();
    ep[5] = 0;  // no checksum is formed
    ShadowAt(root, 0xF0000, ep);
    CSMBios s;
    CDataStream h(std::string("old").data(), 3), d;
    ASSERT_TRUE(s.getSmbiosDataFromBiosShadowMemory(h, d));
    EXPECT_TRUE(h.IsEmpty());
    EXPECT_EQ(ShadowTable().size(), d.GetSize());
}

TEST(SmbiosShadow, ZeroTableAddressAndMissingMemory)
{
    {
        FakeRoot root;
        ShadowAt(root, 0xF0000, EntryPoint21(static_cast<uint16_t>(ShadowTable().size()), 0, 5));
        CSMBios s;
        CDataStream h, d;
        EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
        EXPECT_EQ("No address for SMBIOS strucures detected!", s.GetLastErrorText());
    }
    {
        FakeRoot root;  // no memory file at all
        CSMBios s;
        CDataStream h, d;
        EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
        EXPECT_EQ(0u, s.GetLastErrorText().find("Could not map SMBIOS physical memory (LastError = 0x"));
        EXPECT_FALSE(s.Connect());
    }
    {
        FakeRoot root;  // memory too small for the shadow area
        root.MakeMemory(0xF0000);
        CSMBios s;
        CDataStream h, d;
        EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
    }
}

TEST(DeviceBios, MapRefusesWhenNotConnectedOrZero)
{
    FakeRoot root;
    root.MakeMemory();
    CDeviceBios bios;
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(0, 0xE0000, 16, false));
    bios.Connect();
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(0, 0, 16, false));
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(0, 0xE0000, 0, false));
    root.Poke(0xE0123, {0xAB, 0xCD});
    const uint8_t* p = bios.MapPhysicalMemory(0, 0xE0123, 2, false);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0xAB, p[0]);
    EXPECT_EQ(0xCD, p[1]);
    // A second map replaces the first.
    p = bios.MapPhysicalMemory(0, 0xE0124, 1, false);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0xCD, p[0]);
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(1, 0, 1, false));  // beyond the snapshot
    bios.Disconnect();
}

// --- malformed tables, one place ------------------------------------------------

namespace {
struct WalkCase {
    const char* name;
    Bytes table;
    std::string error;  // empty: the walk succeeds
    std::vector<std::pair<uint8_t, size_t>> index;  // (type, offset) in walk order
    uint16_t count;
};
} // namespace

// The inputs known to break readers of the structure table, each with the
// walk's exact result: what it reports, what it indexed before the fault,
// and the structure count it settles on.  Whatever the input, no view of a
// structure reaches past the table.
TEST(SmbiosMalformed, StructureWalkTable)
{
    const std::string headerEnd = "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while going to struct end!\n";
    const std::string stringsEnd =
        "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while when string table end found!\n";
    const std::vector<WalkCase> cases = {
        // Length 0: the string walk starts at the type byte itself.
        {"length 0 alone", {5, 0, 0, 0}, stringsEnd + "   struct[1], type=0x00, handle=0\n   struct Offset 0x0003",
         {{5, 0}, {0, 3}}, 2},
        // Length 0 inside a table: the walk loses step and reads the next
        // structure's second terminator as a header of length 127.
        {"length 0 before more", Concat({{5, 0, 7, 0}, Structure(1, 1, {}), EndOfTable(2)}),
         headerEnd + "   struct[1], last type=0x00, last handle=516\n   struct Offset 0x0009", {{5, 0}, {0, 9}}, 2},
        {"length shorter than the header", Concat({{5, 2, 7, 0, 0, 0}, EndOfTable(1)}),
         headerEnd + "   struct[1], last type=0x00, last handle=260\n   struct Offset 0x0005", {{5, 0}, {0, 5}}, 2},
        {"length 255 past the end", {5, 255, 1, 0, 0, 0},
         headerEnd + "   struct[0], last type=0x05, last handle=1\n   struct Offset 0x0000", {{5, 0}}, 1},
        {"string set without the second NUL", {5, 4, 1, 0, 'a', 0},
         stringsEnd + "   struct[0], type=0x05, handle=1\n   struct Offset 0x0000", {{5, 0}}, 1},
        {"a lone type byte", {5}, stringsEnd + "   struct[0], type=0x05, handle=0\n   struct Offset 0x0000", {{5, 0}},
         1},
        {"end marker without its terminator", {127, 4, 0, 0},
         stringsEnd + "   struct[0], type=0x7F, handle=0\n   struct Offset 0x0000", {{127, 0}}, 1},
        {"well formed, for contrast", Concat({Structure(5, 1, {1}, {"x"}), EndOfTable(2)}), "", {{5, 0}, {127, 8}}, 2},
    };
    for (const WalkCase& c : cases) {
        SCOPED_TRACE(c.name);
        bool ok = !c.error.empty();
        CSMBios s = Walk(c.table, 0, &ok);
        EXPECT_EQ(c.error.empty(), ok);
        if (!c.error.empty()) {
            EXPECT_EQ(c.error, s.GetLastErrorText());
        }
        EXPECT_EQ(c.index.size(), s.GetIndexedCount());
        for (const auto& [type, offset] : c.index) {
            std::vector<CByteReader> views = s.GetStructures(type);
            ASSERT_EQ(1u, views.size());
            EXPECT_EQ(offset, static_cast<size_t>(views[0].Data() - s.GetData().Reader().Data()));
            EXPECT_LE(offset + views[0].Size(), c.table.size());
        }
        EXPECT_EQ(c.count, s.GetExpectedStructureCount());
    }
}

// Entry point lengths of 0 and 255 in the shadow scan.  0 stores an empty
// header (no sum is formed); 255 is summed over 255 bytes when they lie in
// the scanned area, and counts as a checksum error when they would run past
// its end.
TEST(SmbiosMalformed, ShadowEntryPointLengths)
{
    Bytes longEp = ShadowEp();
    longEp.resize(255, 0);
    longEp[5] = 255;
    uint8_t sum = 0;
    for (size_t i = 0; i < longEp.size(); ++i)
        sum = static_cast<uint8_t>(sum + longEp[i]);
    longEp[254] = static_cast<uint8_t>(longEp[254] - sum);
    {
        FakeRoot root;
        ShadowAt(root, 0xF0000, longEp);
        CSMBios s;
        CDataStream h, d;
        ASSERT_TRUE(s.getSmbiosDataFromBiosShadowMemory(h, d));
        EXPECT_EQ(255u, h.GetSize());
        EXPECT_EQ(ShadowTable().size(), d.GetSize());
    }
    {
        // The last paragraph the scan looks at: 255 bytes would end 0xDF
        // bytes past the area.
        FakeRoot root;
        ShadowAt(root, 0xFFFE0, Bytes(longEp.begin(), longEp.begin() + 32));
        CSMBios s;
        CDataStream h, d;
        EXPECT_FALSE(s.getSmbiosDataFromBiosShadowMemory(h, d));
        EXPECT_TRUE(h.IsEmpty());
        EXPECT_TRUE(d.IsEmpty());
    }
}
