#include "hwinfo/CPciConfigList.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/ByteReader.h"
#include "common/CTRString.h"
#include "common/FileIO.h"
#include "common/UniqueHandle.h"
#include "hwinfo/CPciConfigListInternal.h"
#include "hwinfo/HwDirectory.h"
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

// "bb" or "ssss:bb".
bool ParseBusName(const std::string& name, unsigned& segment, unsigned& bus)
{
    if (name.size() == 2) {
        segment = 0;
        return hwinfo::ParseHexField(name.c_str(), 2, bus);
    }
    return name.size() == 7 && name[4] == ':' && hwinfo::ParseHexField(name.c_str(), 4, segment) &&
           hwinfo::ParseHexField(name.c_str() + 5, 2, bus);
}

// "dd.f".
bool ParseFunctionName(const std::string& name, unsigned& device, unsigned& function)
{
    return name.size() == 4 && name[2] == '.' && hwinfo::ParseHexField(name.c_str(), 2, device) &&
           hwinfo::ParseHexField(name.c_str() + 3, 1, function);
}

// stat() of `path`; false (traced with `who`) when it fails.
bool StatOrTrace(const std::string& path, struct stat& st, const char* who)
{
    if (stat(path.c_str(), &st) == 0)
        return true;
    int err = errno;
    DBG_PRINT(2, "%s  : stat() for %s failed errno=%d (%s)--> ignoring\n", who, path.c_str(), err, strerror(err));
    return false;
}

// The function files of one bus directory into `list`.
void AddBusFunctions(const std::string& busDir, unsigned segment, unsigned bus, CDeviceBusIo::NameList& list)
{
    std::vector<std::string> functions;
    if (!hwinfo::ListDirectory(busDir, functions)) {
        int err = errno;
        DBG_PRINT(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n",
                  busDir.c_str(), err, strerror(err));
        return;
    }
    for (const std::string& fn : functions) {
        unsigned device = 0;
        unsigned function = 0;
        if (!ParseFunctionName(fn, device, function))
            continue;
        std::string path = busDir + "/" + fn;
        struct stat st {};
        if (!StatOrTrace(path, st, "IsPciDevFileValid"))
            continue;
        if ((st.st_mode & 0xD000) != 0x8000)
            continue;
        CPciAddress address(static_cast<uint16_t>(segment), static_cast<uint8_t>(bus), static_cast<uint8_t>(device),
                            static_cast<uint8_t>(function));
        list.emplace(address, path);  // the first entry of an address wins
    }
}

} // namespace

bool CDeviceBusIo::BuildPciDeviceNameList(NameList& list)
{
    std::string root = hwinfo::RootedPath(hwinfo::kProcBusPci);
    DBG_PRINT(3, "BuildPciDeviceNameList  : from directory %s\n", hwinfo::kProcBusPci);
    std::vector<std::string> buses;
    if (!hwinfo::ListDirectory(root, buses)) {
        int err = errno;
        DBG_PRINT(3, "BuildPciDeviceNameList  : scandir for directory %s failed; ## ERROR: errno=%d (%s)\n",
                  root.c_str(), err, strerror(err));
        return false;
    }
    for (const std::string& name : buses) {
        unsigned segment = 0;
        unsigned bus = 0;
        if (!ParseBusName(name, segment, bus))
            continue;
        std::string busDir = root + "/" + name;
        struct stat st {};
        if (!StatOrTrace(busDir, st, "IsPciDevDirValid"))
            continue;
        if ((st.st_mode & S_IFMT) == S_IFDIR)
            AddBusFunctions(busDir, segment, bus, list);
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
    bool ok = lseek(fd.Get(), 0, SEEK_SET) == 0 &&
              tarvd::ReadFull(fd.Get(), buffer.data(), buffer.size()) == static_cast<ssize_t>(buffer.size());
    if (!ok) {
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

namespace {

using H = CPciCommonConfigHeader;
using BridgeSlots = std::map<uint8_t, uint8_t>;  // secondary bus → slot

void TraceFunction(const CPciAddress& address, const PciConfigHeader& header)
{
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
}

// The slot of a function: its firmware entry, else the slot of the bridge
// that created its bus (-1 when neither knows).
int SlotOf(const CPciAddress& address, const std::vector<PciSlotData>& slots, const BridgeSlots& bridges)
{
    const PciSlotData* e = nullptr;
    if (slots.empty())
        DBG_PRINT(1, "\nCPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.");
    else
        e = CPciSlotMap::FindSlot(slots, address.GetBus(), address.GetDevice());
    if (e)
        return e->slot;
    DBG_PRINT(4, "\nCPciConfigList      : Pci device %d at bus %d not found in BIOS routing table - look up bridge mapping",
              address.GetDevice(), address.GetBus());
    auto it = bridges.find(address.GetBus());
    if (it == bridges.end()) {
        DBG_PRINT(4, "\nCPciConfigList      : No entry found in PCI bridge mapping table!");
        return -1;
    }
    DBG_PRINT(4, "\nCPciConfigList      : Pci bridge device at slot %d created bus no %d", it->second, it->first);
    return it->second;
}

// The slot of a function with the slot lookup on; a bridge in a slot hands
// its slot on to the bus behind it.
int SlotWithBridges(const CPciAddress& address, const PciConfigHeader& header, const std::vector<PciSlotData>& slots,
                    BridgeSlots& bridges)
{
    int slot = SlotOf(address, slots, bridges);
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
    return slot;
}

} // namespace

bool CPciConfigList::ScanPciSlots(CPciConfigList& list, bool withSlots)
{
    CDeviceBusIo::NameList names;
    CDeviceBusIo::BuildPciDeviceNameList(names);
    std::vector<PciSlotData> slots;
    if (withSlots)
        slots = CPciSlotMap::GetSlotMapping();
    BridgeSlots bridges;
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
        TraceFunction(address, header);
        int slot = -1;
        if (withSlots)
            slot = SlotWithBridges(address, header, slots, bridges);
        else
            DBG_PRINT(3, "\nCPciConfigList      :    Slot          : N/A");
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
