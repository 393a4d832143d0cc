// The machine identity from SMBIOS: every real dump against figures read
// from its raw bytes by a small walker of the test's own, then hand-made
// structures that are short, damaged or use the extended fields.
#include <gtest/gtest.h>

#include <map>

#include "hwinfo/CSMBios.h"
#include "hwinfo/SmbiosIdentity.h"
#include "support/Firmware.h"

using namespace hwtest;

namespace {

const char* const kDumps[] = {"supermicro-x10dal-i", "dell-poweredge-r777sd", "dell-precision-3620",
                              "lenovo-thinkpad-2347a49", "beelink-eq12", "toshiba-satellite-pro-l70a"};

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

TEST(SmbiosIdentity, EachDumpMatchesItsRawBytes)
{
    for (const char* name : kDumps) {
        SCOPED_TRACE(name);
        Bytes ep = SmbiosFixture(std::string(name) + ".ep"), dmi = SmbiosFixture(std::string(name) + ".dmi");
        CSMBios bios;
        bios.SetTables(CDataStream(ep.data(), ep.size()), CDataStream(dmi.data(), dmi.size()));
        bios.setSmbiosRevisionFromHeader();
        bios.buildStructureList();
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
        f[0x10 - 4] = 1;
        Bytes m = Structure(17, 2, f, {"DIMM A"});
        SmbiosMemoryDeviceInfo info = DecodeSmbiosMemoryDevice(CByteReader(m.data(), m.size()));
        EXPECT_EQ(info.installed, d.size != 0);
        EXPECT_EQ(info.sizeBytes.value_or(0), d.bytes) << d.size;
        EXPECT_EQ(T(info.locator), "DIMM A");
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

// Structures cut anywhere, with any length byte: nothing outside the view is read.
TEST(SmbiosIdentity, TruncatedStructuresReadNothingOutside)
{
    Bytes dmi = SmbiosFixture("dell-poweredge-r777sd.dmi");
    for (uint8_t type : {0, 1, 2, 3, 4, 16, 17}) {
        size_t pos = 0;
        while (pos + 4 <= dmi.size() && dmi[pos] != type && dmi[pos + 1] >= 4) {
            pos += dmi[pos + 1];
            while (pos + 1 < dmi.size() && !(dmi[pos] == 0 && dmi[pos + 1] == 0))
                ++pos;
            pos += 2;
        }
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
