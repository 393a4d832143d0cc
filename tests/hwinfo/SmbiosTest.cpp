// SMBIOS: the acquisition sources, the revision, the structure walk, and the machine identity
// decoded from it (every real dump against figures read from its raw bytes by a small walker of
// the test's own, then hand-made structures that are short, damaged or use the extended fields).
#include <gtest/gtest.h>

#include <map>

#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/CSMBiosInternal.h"
#include "hwinfo/SmbiosIdentity.h"
#include "support/Firmware.h"

using namespace hwtest;

namespace {

CSMBios Walk(const Bytes& table, uint16_t expected = 0, bool* ok = nullptr)
{
    CSMBios s;
    s.SetTables(CDataStream(), CDataStream(table.data(), table.size()));
    s.SetExpectedStructureCount(expected);
    bool r = s.buildStructureList();
    return (ok ? *ok = r : r), s;
}

/// The real dumps with the figures of tests/fixtures/README.md; the slot records are
/// "bus.device.slot.type" in hex.
struct Dump { const char* name; int major, minor; size_t structures, type9, type41; const char* slots; };
const Dump kDumps[] = {
    {"supermicro-x10dal-i", 3, 0, 102, 5, 2, "1.0.1.b6 2.0.3.b6 3.0.5.b6 5.0.0.2 6.0.0.2"},
    {"dell-poweredge-r777sd", 3, 2, 77, 4, 6, "af.0.4.b1 18.0.0.2 18.0.0.2 19.0.0.2 19.0.0.2 3b.0.0.2 3.0.0.2"},
    {"dell-precision-3620", 3, 0, 99, 5, 5, "1.0.1.b1 5.0.4.b0 2.0.5.17 0.2.0.2 0.13.0.2 0.1b.0.2 0.1f.0.2 0.1f.0.2"},
    {"lenovo-thinkpad-2347a49", 2, 7, 69, 2, 0, "0.0.1.a5 0.0.2.1"},
    {"beelink-eq12", 3, 5, 72, 5, 15,
     "0.0.1.a6 0.0.1.a6 0.0.1.a6 0.0.1.a6 0.0.1.a6 0.0.0.2 0.2.0.2 0.14.0.2 0.14.0.2 0.14.0.2 0.15.0.2 0.15.0.2 "
     "0.16.0.2 0.17.0.2 0.1e.0.2 0.1e.0.2 0.1f.0.2 0.1f.0.2 0.1f.0.2 0.1f.0.2"},
    {"toshiba-satellite-pro-l70a", 2, 7, 69, 8, 1,
     "0.1.1.aa 0.1c.2.a6 0.1c.3.a6 0.1c.4.a6 0.1c.5.a6 0.1c.6.a6 0.1c.7.a6 0.1c.8.aa 0.0.0.2"},
};

constexpr uint64_t kEp3Addr = 0x30010;
constexpr uint32_t kTable3Addr = 0x40123;
constexpr uint32_t kShadowTable = 0x90000;
const Bytes kTable3 = Concat({Structure(1, 0, {3}), EndOfTable(1)});
const Bytes kTable2 = Concat({Structure(1, 0, {2}), Structure(2, 1, {2}), EndOfTable(2)});
const Bytes kShadowTableBytes = Concat({Structure(1, 0, {1}), Structure(9, 1, {}), EndOfTable(2)});

void MemoryWithBoth(const FakeRoot& root)
{
    root.MakeMemory();
    root.Poke(kEp3Addr, EntryPoint30(static_cast<uint32_t>(kTable3.size()), kTable3Addr));
    root.Poke(kTable3Addr, kTable3);
    root.Poke(0x31000, EntryPoint21(static_cast<uint16_t>(kTable2.size()), 0x50000, 3));
    root.Poke(0x50000, kTable2);
}

Bytes ShadowEp(uint32_t table = kShadowTable)
{
    return EntryPoint21(static_cast<uint16_t>(kShadowTableBytes.size()), table, 5);
}

/// One raw structure as the test's walker sees it: formatted bytes and strings.
struct Raw {
    Bytes f;
    std::vector<std::string> strings;
    unsigned At(size_t off) const { return off < f.size() ? f[off] : 0xFFFF'FFFFu; }
    unsigned Word(size_t off) const { return off + 1 < f.size() ? f[off] | f[off + 1] << 8 : 0xFFFF'FFFFu; }
    /// Expected text of the string field at `off` ("" when none).
    std::string Str(size_t off) const
    {
        if (off >= f.size() || f[off] == 0)
            return "";
        return f[off] <= strings.size() ? strings[f[off] - 1] : kSmbiosBadStringIndex;
    }
};

std::multimap<unsigned, Raw> RawWalk(const Bytes& t)
{
    std::multimap<unsigned, Raw> out;
    size_t pos = 0;
    while (pos + 4 <= t.size() && t[pos + 1] >= 4 && pos + t[pos + 1] <= t.size()) {
        Raw r;
        r.f.assign(t.begin() + pos, t.begin() + pos + t[pos + 1]);
        size_t p = pos + t[pos + 1];
        // Strings, each NUL-ended, until an empty one; none: a double NUL.
        while (p < t.size() && t[p] != 0) {
            size_t e = p;
            while (e < t.size() && t[e] != 0)
                ++e;
            r.strings.emplace_back(t.begin() + p, t.begin() + e);
            p = e + 1;
        }
        pos = r.strings.empty() ? p + 2 : p + 1;
        unsigned type = r.f[0];
        out.emplace(type, std::move(r));
        if (type == 127)
            break;
    }
    return out;
}

std::string T(const SmbiosText& t) { return t.value_or(""); }

} // namespace

TEST(SmbiosFixtures, TruncatedTablesAndStructuresNeverReadOutside)
{
    // Every prefix length class of a real table: the walk stays inside its
    // buffer (the sanitizer build checks) and fails or succeeds cleanly.
    Bytes dmi = SmbiosFixture("dell-poweredge-r777sd.dmi");
    ASSERT_GT(dmi.size(), 100u);
    for (size_t len = 1; len < dmi.size(); len += (len < 64 ? 1 : 37)) {
        CSMBios s = Walk(Bytes(dmi.begin(), dmi.begin() + static_cast<long>(len)));
        for (const CByteReader& r : s.GetStructures(9))
            EXPECT_LE(r.Data() + r.Size(), s.GetData().Reader().Data() + len);
    }
    // Structures cut anywhere, with any length byte: the decoders read nothing outside the view.
    const CSMBios walked = Walk(dmi);
    for (uint8_t type : {0, 1, 2, 3, 4, 16, 17}) {
        const uint8_t* first = walked.GetStructures(type).at(0).Data();
        const size_t pos = static_cast<size_t>(first - walked.GetData().Reader().Data());
        for (size_t cut = 0; pos + cut <= dmi.size() && cut <= 0x60; ++cut) {
            Bytes part(dmi.begin() + pos, dmi.begin() + pos + cut);  // its own allocation: ASan sees any overrun
            for (uint8_t len : {uint8_t(0), uint8_t(0xFF)}) {
                if (part.size() > 1)
                    part[1] = len == 0 ? part[1] : len;
                CByteReader r(part.data(), part.size());
                (void)DecodeSmbiosBios(r), (void)DecodeSmbiosSystem(r, 3, 2), (void)DecodeSmbiosBaseboard(r);
                (void)DecodeSmbiosChassis(r), (void)DecodeSmbiosProcessor(r), (void)DecodeSmbiosMemoryArray(r);
                (void)DecodeSmbiosMemoryDevice(r);
            }
        }
    }
}

TEST(SmbiosRevision, FromEachAnchor)
{
    std::pair<Bytes, int> cases[] = {
        {EntryPoint21(0, 0, 0, 2, 8), 0x0208}, {EntryPoint30(0, 0, 3, 4), 0x0304},
        {{'U', 'E', 'F', 'I', 0x07, 0x02, 0, 0}, 0x0207},  // the bytes at 4 and 5 in swapped order
        {{'_', 'X', 'X', '_', 1, 2, 3, 4, 5}, 0}, {{'_', 'S', 'M', '_'}, 0}, {{'_', 'S', 'M', '3', '_'}, 0}, {{}, 0},
    };
    for (const auto& [header, revision] : cases) {
        CSMBios s;
        s.SetTables(CDataStream(header.data(), header.size()), CDataStream());
        s.setSmbiosRevisionFromHeader();
        EXPECT_EQ(revision, s.GetMajor() * 256 + s.GetMinor()) << Str(header);
    }
}

// Failing sysfs reads leave the outputs alone; an unknown anchor is taken
// as the kernel gives it: revision 0.0, list built.
TEST(SmbiosSysfs, FailuresLeaveOutputsAndAnUnknownAnchorIsTaken)
{
    FakeRoot root;
    CDataStream h(std::string("old").data(), 3), d(std::string("data").data(), 4);
    for (const char* dmi : {"", "\x7f\x04\x00\x00\x00\x00"}) {
        EXPECT_FALSE(CBiosTables::GetAnySMBiosFromSysfs(h, d));  // nothing, entry point without table, empty table
        root.Write("/sys/firmware/dmi/tables/smbios_entry_point", std::string("_SM3_xxx"));
        EXPECT_FALSE(CBiosTables::GetAnySMBiosFromSysfs(h, d));
        root.Write("/sys/firmware/dmi/tables/DMI", std::string(dmi, *dmi ? 6 : 0));
    }
    EXPECT_EQ(7u, h.GetSize() + d.GetSize());
    EXPECT_TRUE(CBiosTables::GetAnySMBiosFromSysfs(h, d) && h.GetSize() + d.GetSize() == 14u);
    FakeRoot empty;
    CSMBios none;
    EXPECT_FALSE(none.Connect() || none.GetSource() != SmbiosSource::None);
    EXPECT_EQ(0u, none.GetLastErrorText().find("Could not map SMBIOS physical memory (LastError = 0x"));
    empty.SetSysfsSmbios({'J', 'U', 'N', 'K', 'J', 'U', 'N', 'K'}, Concat({Structure(1, 0, {1, 2}), EndOfTable(1)}));
    CSMBios s;
    EXPECT_TRUE(s.Connect() && s.GetSource() == SmbiosSource::Sysfs && s.GetMajor() == 0 && s.GetIndexedCount() == 2);
}

TEST(SmbiosMemory, SystabKeysAddressesAndEntryPoints)
{
    // ep3 replaces the 3.0 entry point when not empty; header 0: the source fails.
    struct Case { const char* file; const char* systab; Bytes ep3; size_t header, data; } cases[] = {
        {"/sys/firmware/efi/systab", "ACPI20=0x7ff00000\nSMBIOS=0x31000\nSMBIOS3=0x30010\n", {}, 24, kTable3.size()},
        // "SMBIOS" is not taken for "SMBIOS3": only the second attempt finds it.
        {"/proc/efi/systab", "SMBIOS=0x31000\n", {}, 31, kTable2.size()},
        {"/sys/firmware/efi/systab", "SMBIOS3=0\nSMBIOS=0x0\n", {}, 0, 0},
        {"/sys/firmware/efi/systab", "SMBIOS3=0x30010\n", EntryPoint30(0, kTable3Addr), 0, 0},
        {"/sys/firmware/efi/systab", "SMBIOS3=0x30010\n", EntryPoint30(7, 0), 0, 0},
        {"/sys/firmware/efi/systab", "SMBIOS3=0x30010\n", EntryPoint30(0x1000, 0xFFF00), 0, 0},  // past the snapshot
        {"/sys/firmware/efi/systab", "SMBIOS3=0x7FFFFFF0\n", {}, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.systab);
        FakeRoot root;
        MemoryWithBoth(root);
        if (!c.ep3.empty())
            root.Poke(kEp3Addr, c.ep3);
        root.Write(c.file, std::string(c.systab));
        CSMBios s;
        EXPECT_EQ(c.header != 0, s.Acquire());
        EXPECT_EQ(c.header ? SmbiosSource::UefiMemory : SmbiosSource::None, s.GetSource());
        EXPECT_EQ(c.header, s.GetHeader().GetSize());
        EXPECT_EQ(c.data, s.GetData().GetSize());
    }
    FakeRoot root;
    root.Write("/proc/efi/systab", std::string("SMBIOS3X=0x30010\nSMBIOS=12345\n"));
    EXPECT_EQ(0u, smbios_tables::SMBiosTableFromMemoryV3().GetUEFIAddress());
    EXPECT_EQ(12345u, smbios_tables::SMBiosTableFromMemoryV2().GetUEFIAddress());  // decimal without "0x"
}

TEST(SmbiosEsx, HeaderTableAndSlack)
{
    Bytes table = Concat({Structure(1, 0, {1}), EndOfTable(1)});
    Bytes ep = EntryPoint21(static_cast<uint16_t>(table.size()), 0, 2);
    std::pair<Bytes, size_t> cases[] = {  // device contents, data size (0: fails)
        {Bytes(30, 'x'), 0},
        {Concat({ep, table, Bytes(32, 0xEE), Bytes(10, 0xDD)}), table.size() + 32},  // T + 32 at most
        {Concat({ep, table}), table.size()},
        {Concat({ep, Bytes(table.begin(), table.end() - 1)}), 0},
    };
    for (const auto& [device, size] : cases) {
        FakeRoot root;
        root.Write("/vmfs/devices/char/mem/smbios", device);
        CSMBios s;
        EXPECT_EQ(size != 0, s.Acquire()) << device.size();
        EXPECT_EQ(size ? SmbiosSource::Esx : SmbiosSource::None, s.GetSource());
        EXPECT_EQ(size ? 31u : 0u, s.GetHeader().GetSize());
        EXPECT_EQ(size, s.GetData().GetSize());
        EXPECT_EQ(size > table.size() ? 0xEE : 0, s.GetData().Reader().U8Or(size - 1));
    }
}

// The legacy scan of the shadow area, each case with its exact outcome.
TEST(SmbiosShadow, ScanEdges)
{
    Bytes badSum = ShadowEp(), noLength = ShadowEp(), longEp = ShadowEp();
    badSum[0x1D] ^= 0x01;
    noLength[5] = 0;  // no checksum is formed, an empty header is stored
    longEp.resize(255, 0);
    longEp[5] = 255;
    FixChecksum(longEp, 254);
    const std::string none = "No SMBIOS structures found!";
    // header: its size with success; error "": success.
    struct Case { uint64_t at; Bytes ep; size_t memory; size_t header; std::string error; } cases[] = {
        {0xF5A40, ShadowEp(), 0x100000, 31, ""},
        {0xF5A48, ShadowEp(), 0x100000, 0, none},  // off a paragraph
        {0xFFFF0, ShadowEp(), 0x100000, 0, none},  // the last 16 bytes are never searched
        {0xF0000, badSum, 0x100000, 0, none},
        {0xF0000, noLength, 0x100000, 0, ""},
        {0xF0000, longEp, 0x100000, 255, ""},
        // 255 bytes from the last paragraph scanned would run past the area.
        {0xFFFE0, Bytes(longEp.begin(), longEp.begin() + 32), 0x100000, 0, none},
        {0xF0000, ShadowEp(0), 0x100000, 0, "No address for SMBIOS strucures detected!"},
        {0xF0000, ShadowEp(0x7FFFFFF0), 0x100000, 0, "Remapping of SMBIOS structure memory failed (LastError = 0x"},
        {0, {}, 0xF0000, 0, "Could not map SMBIOS physical memory (LastError = 0x"},  // memory too small
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.at);
        FakeRoot root;
        root.MakeMemory(c.memory);
        root.Poke(kShadowTable, kShadowTableBytes);
        root.Poke(c.at, c.ep);
        CSMBios s;
        EXPECT_EQ(c.error.empty(), s.Acquire());
        EXPECT_EQ(c.error.empty() ? SmbiosSource::BiosShadow : SmbiosSource::None, s.GetSource());
        EXPECT_EQ(c.header, s.GetHeader().GetSize());
        EXPECT_EQ(c.error.empty() ? kShadowTableBytes.size() : 0u, s.GetData().GetSize());
        EXPECT_EQ(0u, s.GetLastErrorText().find(c.error));
        EXPECT_TRUE(!c.error.empty() || s.GetExpectedStructureCount() == 5);
    }
}

TEST(DeviceBios, MapRefusesWhenNotConnectedOrZero)
{
    FakeRoot root;
    root.MakeMemory();
    root.Poke(0xE0123, {0xAB, 0xCD});
    CDeviceBios bios;
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(0, 0xE0000, 16, false));
    bios.Connect();
    EXPECT_TRUE(!bios.MapPhysicalMemory(0, 0, 16, false) && !bios.MapPhysicalMemory(0, 0xE0000, 0, false));
    ASSERT_NE(nullptr, bios.MapPhysicalMemory(0, 0xE0123, 2, false));
    const uint8_t* p = bios.MapPhysicalMemory(0, 0xE0124, 1, true);  // a second map replaces the first
    ASSERT_TRUE(p && p[0] == 0xCD);
    EXPECT_EQ(nullptr, bios.MapPhysicalMemory(1, 0, 1, false));  // beyond the snapshot
}

// The inputs known to break readers of the structure table, each with the
// walk's exact result: what it reports, what it indexed before the fault,
// and the structure count it settles on.  No view reaches past the table.
TEST(SmbiosMalformed, StructureWalkTable)
{
    const std::string fatal = "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while ";
    const std::string headerEnd = fatal + "going to struct end!\n";
    const std::string stringsEnd = fatal + "when string table end found!\n";
    const std::string second4 = stringsEnd + "   struct[1], type=0x04, handle=7\n   struct Offset 0x0009";
    const Bytes first = Structure(1, 0x10, {1, 2, 3});
    const Bytes ends = Concat({Structure(1, 0, {}), Structure(2, 1, {}), EndOfTable(2)});
    // error "": the walk succeeds; index: (type, offset) in walk order; preset: a count from an entry point.
    struct Case { const char* name; Bytes table; std::string error; std::vector<std::pair<uint8_t, size_t>> index;
                  uint16_t count; uint16_t preset = 0; } cases[] = {
        {"empty", {}, "## ERROR! SMBIOS structures are not set", {}, 0},
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
        {"formatted area past the end", Concat({first, {2, 0x40, 0x22, 0x00, 1, 2, 3, 4}}),
         headerEnd + "   struct[1], last type=0x02, last handle=34\n   struct Offset 0x0009", {{1, 0}, {2, 9}}, 2},
        {"string set without the second NUL", {5, 4, 1, 0, 'a', 0},
         stringsEnd + "   struct[0], type=0x05, handle=1\n   struct Offset 0x0000", {{5, 0}}, 1},
        {"strings without double NUL", Concat({first, {4, 5, 7, 0, 0xAA, 'a', 'b', 0, 'c', 'd'}}), second4,
         {{1, 0}, {4, 9}}, 2},
        {"a single NUL as the last byte", Concat({first, {4, 5, 7, 0, 0xAA, 'a', 0}}), second4, {{1, 0}, {4, 9}}, 2},
        {"formatted area ends at the table end", Concat({first, {4, 5, 7, 0, 0xAA}}), second4, {{1, 0}, {4, 9}}, 2},
        {"a lone type byte", {5}, stringsEnd + "   struct[0], type=0x05, handle=0\n   struct Offset 0x0000", {{5, 0}}, 1},
        {"end marker without its terminator", {127, 4, 0, 0},
         stringsEnd + "   struct[0], type=0x7F, handle=0\n   struct Offset 0x0000", {{127, 0}}, 1},
        {"well formed", Concat({Structure(5, 1, {1}, {"x"}), EndOfTable(2)}), "", {{5, 0}, {127, 8}}, 2},
        {"ends after a double NUL, no end marker",
         Concat({Structure(0, 0, {1, 2}, {"BIOS", "1.0"}), Structure(1, 1, {}), Structure(0xC0, 2, {5})}), "",
         {{0, 0}, {1, 16}, {0xC0, 22}}, 3},
        // The end marker followed by more: the walk stops there and counts one more.
        {"bytes after the end marker", Concat({ends, Structure(3, 9, {1, 2, 3})}), "", {{1, 0}, {2, 6}, {127, 12}}, 4},
        {"a count from the entry point is kept", ends, "", {{1, 0}, {2, 6}, {127, 12}}, 7, 7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        bool ok = !c.error.empty();
        CSMBios s = Walk(c.table, c.preset, &ok);
        EXPECT_EQ(c.error.empty(), ok);
        EXPECT_EQ(c.error, s.GetLastErrorText());
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

// Each real dump read through sysfs: its figures (revision, structures indexed and announced,
// slots, onboard devices), its slot records, and the identity decoded from it against figures
// read from its raw bytes.
TEST(SmbiosIdentity, EachDumpMatchesItsRawBytes)
{
    for (const Dump& dump : kDumps) {
        const std::string name = dump.name;
        SCOPED_TRACE(name);
        Bytes ep = SmbiosFixture(name + ".ep"), dmi = SmbiosFixture(name + ".dmi");
        FakeRoot root;
        root.SetSysfsSmbios(ep, dmi);
        CSMBios bios;
        ASSERT_TRUE(bios.Connect()) << bios.GetLastErrorText();
        EXPECT_EQ((std::vector<size_t>{size_t(dump.major * 256 + dump.minor), dump.structures, dump.structures,
                                       dump.type9, dump.type41}),
                  (std::vector<size_t>{size_t(bios.GetMajor() * 256 + bios.GetMinor()), bios.GetIndexedCount(),
                                       bios.GetExpectedStructureCount(), bios.GetStructures(9).size(),
                                       bios.GetStructures(41).size()}));
        std::string got;
        for (const PciSlotData& s : CPciSlotMap::GetSlotMappingFromSMBIOS()) {
            char item[32];
            snprintf(item, sizeof item, got.empty() ? "%x.%x.%x.%x" : " %x.%x.%x.%x", s.bus, s.device, s.slot, s.type);
            got += item;
        }
        EXPECT_EQ(dump.slots, got);
        SmbiosIdentity id = DecodeSmbiosIdentity(bios);
        auto raw = RawWalk(dmi);
        unsigned major = ep[0] == '_' && ep[3] == '3' ? ep[7] : ep[6];
        unsigned minor = ep[0] == '_' && ep[3] == '3' ? ep[8] : ep[7];

        const Raw& b = raw.find(0)->second;
        ASSERT_TRUE(id.bios);
        EXPECT_EQ(b.Str(4) + "|" + b.Str(5) + "|" + b.Str(8), T(id.bios->vendor) + "|" + T(id.bios->version) + "|" + T(id.bios->releaseDate));
        if (b.At(9) != 0xFF) {
            EXPECT_EQ((b.At(9) + 1) * 65536ull, id.bios->romSizeBytes.value_or(0));
        }

        const Raw& s = raw.find(1)->second;
        ASSERT_TRUE(id.system);
        EXPECT_EQ(s.Str(4) + "|" + s.Str(5) + "|" + s.Str(7), T(id.system->manufacturer) + "|" + T(id.system->productName) + "|" + T(id.system->serialNumber));
        char uuid[40];
        const uint8_t* u = s.f.data() + 8;
        bool swap = major * 256 + minor >= 0x206;
        unsigned d1 = swap ? u[0] | u[1] << 8 | u[2] << 16 | unsigned(u[3]) << 24 : unsigned(u[0]) << 24 | u[1] << 16 | u[2] << 8 | u[3];
        unsigned d2 = swap ? u[4] | u[5] << 8 : u[4] << 8 | u[5], d3 = swap ? u[6] | u[7] << 8 : u[6] << 8 | u[7];
        snprintf(uuid, sizeof uuid, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", d1, d2, d3, u[8], u[9], u[10],
                 u[11], u[12], u[13], u[14], u[15]);
        bool special = std::all_of(u, u + 16, [](uint8_t x) { return x == 0; }) || std::all_of(u, u + 16, [](uint8_t x) { return x == 0xFF; });
        if (!special) {
            EXPECT_EQ(uuid, T(id.system->uuid));
        }

        if (raw.count(2)) {
            const Raw& bb = raw.find(2)->second;
            EXPECT_EQ(bb.Str(4) + "|" + bb.Str(5), T(id.baseboard->manufacturer) + "|" + T(id.baseboard->productName));
        }
        const Raw& c = raw.find(3)->second;
        EXPECT_EQ(c.Str(4) + "|" + std::to_string(c.At(5) & 0x7F),
                  T(id.chassis->manufacturer) + "|" + std::to_string(id.chassis->type.value_or(0)));

        ASSERT_EQ(raw.count(4), id.processors.size());
        auto p = id.processors.begin();
        for (auto [it, end] = raw.equal_range(4); it != end; ++it, ++p) {
            const Raw& r = it->second;
            EXPECT_EQ(r.Str(4) + "|" + r.Str(0x10), T(p->socket) + "|" + T(p->version));
            EXPECT_EQ(r.Word(0x14), p->maxSpeedMHz.value_or(0));
            if (r.f.size() > 0x23 && r.At(0x23) != 0xFF) {
                EXPECT_EQ(r.At(0x23), p->coreCount.value_or(0));
            }
        }
        ASSERT_EQ(raw.count(17), id.memoryDevices.size());
        auto m = id.memoryDevices.begin();
        for (auto [it, end] = raw.equal_range(17); it != end; ++it, ++m) {
            const Raw& r = it->second;
            EXPECT_EQ(r.Str(0x10) + "|" + r.Str(0x11) + "|" + r.Str(0x1A), T(m->locator) + "|" + T(m->bankLocator) + "|" + T(m->partNumber));
            unsigned size = r.Word(0x0C);
            uint64_t want = size == 0x7FFF ? (uint64_t(r.Word(0x1C)) | uint64_t(r.Word(0x1E) & 0x7FFF) << 16) << 20
                          : (size & 0x8000) ? uint64_t(size & 0x7FFF) << 10 : uint64_t(size) << 20;
            EXPECT_EQ(size != 0, m->installed);
            if (size != 0 && size != 0xFFFF) {
                EXPECT_EQ(want, m->sizeBytes.value_or(0));
            }
        }
        EXPECT_EQ(raw.count(16), id.memoryArrays.size());
        bios.Disconnect();
        EXPECT_TRUE(bios.GetData().IsEmpty() && bios.GetStructures(9).empty() && bios.GetMajor() == 0);
    }
}

// Hand-made structures: each case a structure and what its fields read.
TEST(SmbiosIdentity, ShortDamagedAndExtendedStructures)
{
    Bytes uuid = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    // Manufacturer, product, version, no serial; UUID; wake-up, SKU string 9 (bad), family string 1.
    Bytes sys = Concat({{1, 2, 3, 0}, uuid, {6, 9, 1}});
    Bytes full = Structure(1, 1, sys, {"Maker", "Box", "v1"});
    SmbiosSystemInfo s = DecodeSmbiosSystem(CByteReader(full.data(), full.size()), 2, 6);
    EXPECT_EQ(T(s.manufacturer) + "|" + T(s.productName) + "|" + T(s.version), "Maker|Box|v1");
    EXPECT_FALSE(s.serialNumber);
    EXPECT_EQ(T(s.uuid), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(T(s.skuNumber), kSmbiosBadStringIndex);
    EXPECT_EQ(T(s.family), "Maker");
    EXPECT_EQ(T(DecodeSmbiosSystem(CByteReader(full.data(), full.size()), 2, 5).uuid), "33221100-5544-7766-8899-AABBCCDDEEFF");
    // A 2.0 structure (length 8): no UUID, SKU, family.
    Bytes old = Structure(1, 1, Bytes(sys.begin(), sys.begin() + 4), {"Maker"});
    s = DecodeSmbiosSystem(CByteReader(old.data(), old.size()), 3, 0);
    EXPECT_TRUE(!s.uuid && !s.skuNumber && !s.family && T(s.manufacturer) == "Maker");
    EXPECT_EQ(T(s.productName), kSmbiosBadStringIndex);

    // BIOS: ROM size 0xFF with the extended size 16 GiB; revision 0xFF/0xFF absent.
    Bytes bios(0x1A - 4, 0);
    bios[0x09 - 4] = 0xFF;
    bios[0x14 - 4] = bios[0x15 - 4] = 0xFF;
    bios[0x18 - 4] = 0x10;
    bios[0x19 - 4] = 0x40;
    Bytes b = Structure(0, 1, bios);
    SmbiosBiosInfo bi = DecodeSmbiosBios(CByteReader(b.data(), b.size()));
    EXPECT_EQ(bi.romSizeBytes.value_or(0), 16ull << 30);
    EXPECT_TRUE(!bi.biosMajor && !bi.vendor);

    // Memory devices: {size word, extended size, bytes (0: not installed)}.
    struct Dimm { uint16_t size; uint32_t ext; uint64_t bytes; } dimms[] = {
        {0, 0, 0}, {0x8000 | 512, 0, 512ull << 10}, {4096, 0, 4ull << 30}, {0x7FFF, 0x10000, 64ull << 30}};
    for (const Dimm& d : dimms) {
        Bytes f(0x22 - 4, 0);
        PutLe(f, 0x0C - 4, d.size, 2);
        PutLe(f, 0x1C - 4, d.ext, 4);
        Bytes m = Structure(17, 2, f);
        SmbiosMemoryDeviceInfo info = DecodeSmbiosMemoryDevice(CByteReader(m.data(), m.size()));
        EXPECT_EQ(info.installed, d.size != 0);
        EXPECT_EQ(info.sizeBytes.value_or(0), d.bytes) << d.size;
    }
    // Processor: core/thread bytes 0xFF point to the 3.0 words; family 0xFE to family 2.
    Bytes cpu(0x30 - 4, 0);
    cpu[0x06 - 4] = 0xFE;
    PutLe(cpu, 0x28 - 4, 0x101, 2);
    cpu[0x23 - 4] = cpu[0x25 - 4] = 0xFF;
    cpu[0x24 - 4] = 8;
    PutLe(cpu, 0x2A - 4, 256, 2);
    PutLe(cpu, 0x2E - 4, 512, 2);
    Bytes c = Structure(4, 3, cpu);
    SmbiosProcessorInfo pi = DecodeSmbiosProcessor(CByteReader(c.data(), c.size()));
    EXPECT_EQ(pi.family.value_or(0), 0x101u);
    EXPECT_EQ(pi.coreCount.value_or(0) * 10000 + pi.coresEnabled.value_or(0) * 1000 + pi.threadCount.value_or(0), 2560000u + 8000 + 512);
    // Memory array with the extended capacity.
    Bytes arr(0x17 - 4, 0);
    PutLe(arr, 0x07 - 4, 0x80000000u, 4);
    PutLe(arr, 0x0F - 4, 1ull << 42, 8);
    Bytes a = Structure(16, 4, arr);
    EXPECT_EQ(DecodeSmbiosMemoryArray(CByteReader(a.data(), a.size())).maxCapacityBytes.value_or(0), 1ull << 42);
}
