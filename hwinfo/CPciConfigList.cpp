#include "hwinfo/CPciConfigList.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/ByteReader.h"
#include "common/CTRString.h"
#include "common/UniqueHandle.h"
#include "hwinfo/HwPaths.h"
#include "trace/CDebug.h"

// ---------------------------------------------------------------------------
// Header fields and names

uint16_t CPciCommonConfigHeader::VendorId(const PciConfigHeader& h)
{
    return CByteReader(h.data(), h.size()).Le16Or(0x00);
}

uint16_t CPciCommonConfigHeader::DeviceId(const PciConfigHeader& h)
{
    return CByteReader(h.data(), h.size()).Le16Or(0x02);
}

uint16_t CPciCommonConfigHeader::SubVendorId(const PciConfigHeader& h)
{
    return (h[0x0E] & 0x7F) == 0 ? CByteReader(h.data(), h.size()).Le16Or(0x2C) : 0;
}

uint16_t CPciCommonConfigHeader::SubDeviceId(const PciConfigHeader& h)
{
    return (h[0x0E] & 0x7F) == 0 ? CByteReader(h.data(), h.size()).Le16Or(0x2E) : 0;
}

bool CPciCommonConfigHeader::IsValid(const PciConfigHeader& h)
{
    return static_cast<uint16_t>(VendorId(h) - 1) <= 65533 && DeviceId(h) != 0;
}

const char* CPciCommonConfigHeader::GetPciBaseClassDescription(uint8_t baseClass)
{
    // Base class 0 (devices built before class codes) is reported as
    // "Unknown" on purpose.
    static const char* const kNames[] = {
        "Unknown",
        "Mass storage controller",
        "Network controller",
        "Display controller",
        "Multimedia device",
        "Memory controller",
        "Bridge device",
        "Simple communication controller",
        "System peripheral",
        "Input device",
        "Docking station",
        "Processor",
        "Serial bus controller",
        "Wireless controller",
        "Intelligent I/O controller",
        "Satellite communication controller",
        "Encryption/decryption controller",
        "Signal processing controller",
    };
    if (baseClass < sizeof kNames / sizeof kNames[0])
        return kNames[baseClass];
    return baseClass == 0xFF ? "Other" : "Unknown";
}

namespace {

struct SubName {
    uint8_t sub;
    int progIf;  // -1: any interface
    const char* name;
};

const char* Lookup(const SubName* table, size_t n, uint8_t sub, uint8_t progIf, const char* fallback)
{
    for (size_t i = 0; i < n; ++i) {
        if (table[i].sub == sub && (table[i].progIf < 0 || table[i].progIf == progIf))
            return table[i].name;
    }
    return fallback;
}

#define SUBNAMES(table) table, sizeof table / sizeof table[0]

const SubName kClass0[] = {{0, -1, "Early non-VGA device"}, {1, -1, "VGA compatible device"}};
const SubName kClass1[] = {{0, -1, "SCSI controller"}, {1, -1, "IDE controller"}, {2, -1, "Floppy disk controller"},
                           {3, -1, "IPI controller"},  {4, -1, "RAID controller"}, {5, -1, "ATA controller"},
                           {6, -1, "SATA controller"}, {7, -1, "SAS controller"}};
const SubName kClass2[] = {{0, -1, "Ethernet controller"}, {1, -1, "Token ring controller"},
                           {2, -1, "FDDI controller"},     {3, -1, "ATM controller"}};
const SubName kClass3[] = {{0, 0, "VGA compatible controller"}, {0, -1, "8514 compatible controller"},
                           {1, -1, "XGA controller"},           {2, -1, "3D controller"}};
const SubName kClass4[] = {{0, -1, "Video device"}, {1, -1, "Audio device"}, {2, -1, "Telephony device"}};
const SubName kClass5[] = {{0, -1, "RAM controller"}, {1, -1, "Flash memory controller"}};
const SubName kClass6[] = {{0, -1, "Host bridge"},    {1, -1, "ISA bridge"},       {2, -1, "EISA bridge"},
                           {3, -1, "MCA bridge"},     {4, -1, "PCI-to-PCI bridge"}, {5, -1, "PCMCIA bridge"},
                           {6, -1, "NuBus bridge"},   {7, -1, "CardBus bridge"},    {8, -1, "RACEWay bridge"}};
const SubName kClass7[] = {{0, 0, "Generic XT compatible serial port"},
                           {0, 1, "16450 compatible serial port"},
                           {0, 2, "16550 compatible serial port"},
                           {0, -1, "Serial port"},
                           {1, 0, "Generic XT compatible parallel port"},
                           {1, 1, "Bidirectional parallel port"},
                           {1, 2, "ECP 1.X compliant parallel port"},
                           {1, -1, "Parallel port"},
                           {2, -1, "Multi serial controller"},
                           {3, -1, "Modem"}};
const SubName kClass8[] = {{0, 0, "Generic 8259 PIC"},
                           {0, 1, "ISA PIC"},
                           {0, 2, "EISA PIC"},
                           {0, -1, "PIC"},
                           {1, 0, "Generic 8237 DMA"},
                           {1, 1, "ISA DMA"},
                           {1, 2, "EISA DMA"},
                           {1, -1, "DMA"},
                           {2, 0, "Generic 8254 system timer"},
                           {2, 1, "ISA system timer"},
                           {2, 2, "EISA system timer"},
                           {2, -1, "System timer"},
                           {3, 0, "Generic RTC"},
                           {3, 1, "ISA RTC"},
                           {3, -1, "RTC"},
                           {4, -1, "PCI hot-plug controller"}};
const SubName kClass9[] = {{0, -1, "Keyboard controller"}, {1, -1, "Digitizer (pen)"}, {2, -1, "Mouse controller"},
                           {3, -1, "Scanning controller"}, {4, -1, "Game controller"}};
const SubName kClass11[] = {{0, -1, "386"},      {1, -1, "486"},         {2, -1, "Pentium"},
                            {16, -1, "Alpha"},   {32, -1, "PowerPC"},    {64, -1, "Co-processor"}};
const SubName kClass12[] = {{0, -1, "Firewire (IEEE 1394)"}, {1, -1, "ACCESS.bus"}, {2, -1, "SSA"},
                            {3, -1, "Universal Serial Bus (USB)"}, {4, -1, "Fibre Channel"}, {5, -1, "SM Bus"},
                            {6, -1, "InfiniBand"}};
const SubName kClass13[] = {{0, -1, "iRDA controller"}, {1, -1, "Consumer IR controller"}, {2, -1, "RF controller"}};
const SubName kClass14[] = {{0, -1, "I2O controller"}};
const SubName kClass15[] = {{0, -1, "Satellite TV controller"}, {1, -1, "Satellite audio controller"},
                            {2, -1, "Satellite voice controller"}, {3, -1, "Satellite data controller"}};
const SubName kClass16[] = {{0, -1, "Network and computing en/decryption"}, {1, -1, "Entertainment en/decryption"}};
const SubName kClass17[] = {{0, -1, "DPIO module"}};

} // namespace

const char* CPciCommonConfigHeader::GetPciSubClassDescription(const PciConfigHeader& h)
{
    uint8_t base = BaseClass(h);
    uint8_t sub = SubClass(h);
    uint8_t pi = ProgIf(h);
    const char* fallback = GetPciBaseClassDescription(base);
    switch (base) {
    case 0: return Lookup(SUBNAMES(kClass0), sub, pi, fallback);
    case 1: return Lookup(SUBNAMES(kClass1), sub, pi, fallback);
    case 2: return Lookup(SUBNAMES(kClass2), sub, pi, fallback);
    case 3: return Lookup(SUBNAMES(kClass3), sub, pi, fallback);
    case 4: return Lookup(SUBNAMES(kClass4), sub, pi, fallback);
    case 5: return Lookup(SUBNAMES(kClass5), sub, pi, fallback);
    case 6: return Lookup(SUBNAMES(kClass6), sub, pi, fallback);
    case 7: return Lookup(SUBNAMES(kClass7), sub, pi, fallback);
    case 8: return Lookup(SUBNAMES(kClass8), sub, pi, fallback);
    case 9: return Lookup(SUBNAMES(kClass9), sub, pi, fallback);
    case 10: return "Docking station";
    case 11: return Lookup(SUBNAMES(kClass11), sub, pi, fallback);
    case 12: return Lookup(SUBNAMES(kClass12), sub, pi, fallback);
    case 13: return Lookup(SUBNAMES(kClass13), sub, pi, fallback);
    case 14: return Lookup(SUBNAMES(kClass14), sub, pi, fallback);
    case 15: return Lookup(SUBNAMES(kClass15), sub, pi, fallback);
    case 16: return Lookup(SUBNAMES(kClass16), sub, pi, fallback);
    case 17: return Lookup(SUBNAMES(kClass17), sub, pi, fallback);
    default: return fallback;
    }
}

// ---------------------------------------------------------------------------
// Enumeration

namespace {

// Owns the name list that scandir returns.
class DirEntries {
public:
    explicit DirEntries(const std::string& dir) { m_Count = scandir(dir.c_str(), &m_List, nullptr, alphasort); }
    ~DirEntries()
    {
        for (int i = 0; i < m_Count; ++i)
            free(m_List[i]);
        free(m_List);
    }
    DirEntries(const DirEntries&) = delete;
    DirEntries& operator=(const DirEntries&) = delete;
    bool Ok() const { return m_Count >= 0; }
    int Count() const { return m_Count; }
    const char* Name(int i) const { return m_List[i]->d_name; }

private:
    struct dirent** m_List = nullptr;
    int m_Count = -1;
};

bool IsHex(const char* s, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (!isxdigit(static_cast<unsigned char>(s[i])))
            return false;
    }
    return true;
}

// "bb" or "ssss:bb".
bool ParseBusName(const char* name, unsigned& segment, unsigned& bus)
{
    size_t len = strlen(name);
    if (len == 2 && IsHex(name, 2)) {
        segment = 0;
        return sscanf(name, "%02x", &bus) == 1;
    }
    if (len == 7 && IsHex(name, 4) && name[4] == ':' && IsHex(name + 5, 2))
        return sscanf(name, "%04x:%02x", &segment, &bus) == 2;
    return false;
}

} // namespace

bool CDeviceBusIo::BuildPciDeviceNameList(NameList& list)
{
    std::string root = hwinfo::RootedPath(hwinfo::kProcBusPci);
    DBG_PRINT(3, "BuildPciDeviceNameList  : from directory %s\n", hwinfo::kProcBusPci);
    DirEntries buses(root);
    if (!buses.Ok()) {
        int err = errno;
        DBG_PRINT(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n",
                  root.c_str(), err, strerror(err));
        return false;
    }
    for (int i = 0; i < buses.Count(); ++i) {
        const char* name = buses.Name(i);
        if (name[0] == '\0' || name[0] == '.')
            continue;
        unsigned segment = 0;
        unsigned bus = 0;
        if (!ParseBusName(name, segment, bus))
            continue;
        std::string busDir = root + "/" + name;
        struct stat st {};
        if (stat(busDir.c_str(), &st) != 0) {
            int err = errno;
            DBG_PRINT(2, "IsPciDevDirValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", busDir.c_str(), err,
                      strerror(err));
            continue;
        }
        if ((st.st_mode & S_IFMT) != S_IFDIR)
            continue;
        DirEntries functions(busDir);
        if (!functions.Ok()) {
            int err = errno;
            DBG_PRINT(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n",
                      busDir.c_str(), err, strerror(err));
            continue;
        }
        for (int j = 0; j < functions.Count(); ++j) {
            const char* fn = functions.Name(j);
            if (fn[0] == '\0' || fn[0] == '.' || strlen(fn) != 4)
                continue;
            if (!IsHex(fn, 2) || fn[2] != '.' || !IsHex(fn + 3, 1))
                continue;
            unsigned device = 0;
            unsigned function = 0;
            if (sscanf(fn, "%02x.%01x", &device, &function) != 2)
                continue;
            std::string path = busDir + "/" + fn;
            struct stat fst {};
            if (stat(path.c_str(), &fst) != 0) {
                int err = errno;
                DBG_PRINT(2, "IsPciDevFileValid  : stat() for %s failed errno=%d (%s)--> ignoring\n", path.c_str(), err,
                          strerror(err));
                continue;
            }
            if ((fst.st_mode & 0xD000) != 0x8000)
                continue;
            CPciAddress address(static_cast<uint16_t>(segment), static_cast<uint8_t>(bus),
                                static_cast<uint8_t>(device), static_cast<uint8_t>(function));
            list.emplace(address, path);  // the first entry of an address wins
        }
    }
    return true;
}

bool CDeviceBusIo::GetPciConfigSpace(const std::string& path, PciConfigHeader& header)
{
    DBG_PRINT(4, "CDeviceBusIo::GetPciConfigSpace: open and read %s\n", path.c_str());
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        DBG_PRINT(4, "GetPciConfigSpace: cannot open %s\n", path.c_str());
        return false;
    }
    PciConfigHeader buffer{};
    size_t got = 0;
    bool ok = lseek(fd.Get(), 0, SEEK_SET) == 0;
    while (ok && got < buffer.size()) {
        ssize_t n = read(fd.Get(), buffer.data() + got, buffer.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    if (!ok || got != buffer.size()) {
        DBG_PRINT(3, "GetPciConfigSpace : read error from %s\n", path.c_str());
        return false;
    }
    header = buffer;
    DBG_PRINT(3, "GetPciConfigSpace : %d bytes read at offset 0x%02x from %s\n", static_cast<int>(buffer.size()), 0,
              path.c_str());
    return true;
}

// ---------------------------------------------------------------------------
// Scan

bool CPciConfigList::ScanPciSlots(CPciConfigList& list, bool withSlots)
{
    using H = CPciCommonConfigHeader;
    CDeviceBusIo::NameList names;
    CDeviceBusIo::BuildPciDeviceNameList(names);
    std::vector<PciSlotData> slots;
    if (withSlots)
        slots = CPciSlotMap::GetSlotMapping();
    std::map<uint8_t, uint8_t> bridges;  // secondary bus → slot
    int count = 0;
    for (const auto& [address, path] : names) {
        PciConfigHeader header{};
        if (!CDeviceBusIo::GetPciConfigSpace(path, header))
            break;  // an unreadable function ends the walk
        if (!H::IsValid(header)) {
            DBG_PRINT(1, "\nCPciConfigList      : Invalid PCI device configuration! (Vendor: 0x%X Device: 0x%X)",
                      H::VendorId(header), H::DeviceId(header));
            continue;
        }
        DBG_PRINT(3, "\nCPciConfigList      : ## Found PCI Device (Segment %d Bus %d, Device %d Function %d) ##",
                  address.GetSegment(), address.GetBus(), address.GetDevice(), address.GetFunction());
        DBG_PRINT(3, "\nCPciConfigList      :    Header Type   : 0x%02X", H::HeaderType(header));
        DBG_PRINT(3, "\nCPciConfigList      :    Vendor Id     : 0x%04X   SubVendor Id: 0x%04X", H::VendorId(header),
                  H::SubVendorId(header));
        DBG_PRINT(3, "\nCPciConfigList      :    Device Id     : 0x%04X   SubDevice Id: 0x%04X", H::DeviceId(header),
                  H::SubDeviceId(header));
        DBG_PRINT(3, "\nCPciConfigList      :    Base Class    : 0x%02X     %s", H::BaseClass(header),
                  H::GetPciBaseClassDescription(H::BaseClass(header)));
        DBG_PRINT(3, "\nCPciConfigList      :    Sub Class     : 0x%02X     %s", H::SubClass(header),
                  H::GetPciSubClassDescription(header));
        int slot = -1;
        if (!withSlots) {
            DBG_PRINT(3, "\nCPciConfigList      :    Slot          : N/A");
        } else {
            const PciSlotData* e = nullptr;
            if (slots.empty())
                DBG_PRINT(1, "\nCPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.");
            else
                e = CPciSlotMap::FindSlot(slots, address.GetBus(), address.GetDevice());
            if (e) {
                slot = e->slot;
            } else {
                DBG_PRINT(4, "\nCPciConfigList      : Pci device %d at bus %d not found in BIOS routing table - look up bridge mapping",
                          address.GetDevice(), address.GetBus());
                auto it = bridges.find(address.GetBus());
                if (it != bridges.end()) {
                    slot = it->second;
                    DBG_PRINT(4, "\nCPciConfigList      : Pci bridge device at slot %d created bus no %d", it->second,
                              it->first);
                } else {
                    DBG_PRINT(4, "\nCPciConfigList      : No entry found in PCI bridge mapping table!");
                }
            }
            if (slot >= 0)
                DBG_PRINT(3, "\nCPciConfigList      :    Slot          : %d", slot);
            else
                DBG_PRINT(3, "\nCPciConfigList      :    Slot          : N/A");
            if (H::IsBridge(header)) {
                DBG_PRINT(3, "\nCPciConfigList      :    Brigde device:  Primary bus index  : %d", H::PrimaryBus(header));
                DBG_PRINT(3, "\nCPciConfigList      :    Secondary bus index: %d", H::SecondaryBus(header));
                if (slot >= 0)
                    bridges[H::SecondaryBus(header)] = static_cast<uint8_t>(slot);
            }
        }
        CPciSlotData record;
        record.address = address;
        record.header = header;
        record.slot = slot;
        list[address] = record;
        ++count;
    }
    DBG_PRINT(2, "\nCPciConfigList      : %d PCI devices detected!", count);
    return !list.empty();
}

std::vector<std::string> KelTRScanPciSlots()
{
    using H = CPciCommonConfigHeader;
    std::vector<std::string> lines;
    CPciConfigList list;
    CPciConfigList::ScanPciSlots(list, false);
    for (const auto& [address, rec] : list) {
        int slot = CPciSlotMap::GetPciSlotNumber(address.GetBus(), address.GetDevice());
        CTRString line;
        line.Format("%s %04x:%04x %s slot %d", address.ToString().c_str(), H::VendorId(rec.header),
                    H::DeviceId(rec.header), H::GetPciSubClassDescription(rec.header), slot);
        DBG_PRINT(3, "\nKelTRScanPciSlots   : %s", line.c_str());
        lines.push_back(line);
    }
    return lines;
}
