#include "hwinfo/CPciSlotMap.h"

#include <cstring>

#include "common/ByteReader.h"
#include "common/CTRString.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/CSMBiosInternal.h"
#include "trace/CDebug.h"

namespace {

constexpr uint32_t kRoutingAreaStart = 0xF0000;
constexpr unsigned long kRoutingAreaLength = 0x10000;
constexpr size_t kRoutingHeaderSize = 32;
constexpr size_t kRoutingEntrySize = 16;  // sizeof (IRQ_ROUTING_TABLE_ENTRY)
constexpr size_t kRoutingSizeLimit = 0xFFE0;
constexpr uint8_t kSmbiosSystemSlots = 9;
constexpr uint8_t kSmbiosOnboardDevicesExt = 41;
constexpr uint8_t kSlotUsageUnavailable = 5;
constexpr uint8_t kSlotTypeUnknown = 2;

} // namespace

bool PciSlotData::IsSerialBus() const
{
    const char* kind = nullptr;
    if ((type >= 0xA5 && type <= 0xB6) || type == 0x1F || type == 0x20)
        kind = "PCI Express";
    else if (type >= 0x21 && type <= 0x23)
        kind = "PCI Express Mini";
    else if (type >= 0x18 && type <= 0x1E)
        kind = "MXM";
    else if (type >= 0x14 && type <= 0x17)
        kind = "M.2";
    if (kind) {
        DBG_PRINT(5, "\nPciSlotData::IsSerialBus(): Slot %d is a %s bus (SMBios type = %x) --> SERIAL.", slot, kind, type);
        return true;
    }
    DBG_PRINT(5, "\nPciSlotData::IsSerialBus(): Slot %d is NOT a serial bus (SMBios type = %x) --> PARALLEL", slot, type);
    return false;
}

std::string PciSlotData::ToString() const
{
    const char* text = type <= kSlotTypeUnknown ? "Unknown bus type" : (IsSerialBus() ? "Serial bus" : "Parallel bus");
    CTRString s;
    s.Format("PciSlotData %x:%x.** --> Slot %u (%s)", bus, device, slot, text);
    return s;
}

bool PciSlotData::Matches(unsigned b, unsigned d) const
{
    if (IsSerialBus())
        return bus == b;
    return bus == b && device == d;
}

std::vector<PciSlotData> CPciSlotMap::GetSlotMappingFromSMBIOS()
{
    std::vector<PciSlotData> list;
    DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Attempt to get Slot Mapping from SMBIOS data.\n");
    CSMBios smbios;
    if (!smbios.Connect()) {
        DBG_PRINT(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## cannot connect to SMBios!\n");
        return list;
    }
    std::vector<CByteReader> slots = smbios.GetStructures(kSmbiosSystemSlots);
    // The count is held in 8 bits: with 256 or more structures of a type
    // only the remainder is visited.
    uint8_t count = static_cast<uint8_t>(slots.size());
    for (uint8_t i = 0; i < count; ++i) {
        const CByteReader& s = slots[i];
        // A byte past the end of the table is absent; an absent bus counts
        // as "no bus" (0xFF).
        uint8_t bus = s.U8Or(0x0F, 0xFF);
        if (bus == 0xFF) {
            DBG_PRINT(5, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore unavailable slot with bus number 0xFF...\n");
            continue;
        }
        uint8_t usage = s.U8Or(0x07);
        DBG_PRINT(5, "\nCPciSlotMap::GetPciSlotNumber() : CurrentUsage status - %x for bus - %x.", usage, bus);
        if (usage == kSlotUsageUnavailable) {
            DBG_PRINT(3, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Ignore riser-unavailable slot with Current Usage status - Unavaiable ...\n");
            continue;
        }
        PciSlotData d;
        d.bus = bus;
        d.device = static_cast<uint8_t>(s.U8Or(0x10) >> 3);
        d.slot = s.U8Or(0x09);
        d.type = s.U8Or(0x05);
        list.push_back(d);
        DBG_PRINT(2, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add system slot device - %s.", d.ToString().c_str());
    }
    if (slots.empty())
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No System Slots (Type 9) entries.\n");

    std::vector<CByteReader> onboard = smbios.GetStructures(kSmbiosOnboardDevicesExt);
    count = static_cast<uint8_t>(onboard.size());
    for (uint8_t i = 0; i < count; ++i) {
        const CByteReader& s = onboard[i];
        PciSlotData d;
        d.bus = s.U8Or(0x09);
        d.device = static_cast<uint8_t>(s.U8Or(0x0A) >> 3);
        d.slot = 0;
        d.type = kSlotTypeUnknown;
        list.push_back(d);
        DBG_PRINT(2, "\nCPciSlotMap::GetSlotMappingFromSMBIOS() : Add onboard device - %s.", d.ToString().c_str());
    }
    if (onboard.empty())
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): No Onboard Devices Extended Information (Type 41) entries.\n");

    smbios.Disconnect();
    if (!list.empty())
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): Success! Gathered %u slots from SMBios\n",
                  static_cast<unsigned>(list.size()));
    else
        DBG_PRINT(1, "\nCPciSlotMap::GetSlotMappingFromSMBIOS(): ERROR ## No slot data in SMBios!\n");
    return list;
}

namespace {

// Offset of the "$PIR" signature, searched on 16-byte boundaries.
bool FindRoutingTable(const CByteReader& r, size_t& off)
{
    for (off = 0; off + 4 <= r.Size(); off += 16) {
        if (r.Data()[off] == '$' && r.Matches(off, "$PIR", 4))
            return true;
    }
    return false;
}

// Size, version and checksum of the "$PIR" IRQ routing table at `off`;
// each failure traced.
bool RoutingTableValid(const CByteReader& r, size_t off, size_t size)
{
    uint16_t version = r.Le16Or(off + 4);
    // A table whose offset is past the limit has no room at all (the
    // subtraction alone would wrap and let any size through).
    if (size == 0 || off > kRoutingSizeLimit || size > kRoutingSizeLimit - off) {
        DBG_PRINT(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal table size in PCI IRQ Routing Table (%d)\n",
                  static_cast<int>(size));
        return false;
    }
    if (size % kRoutingEntrySize != 0) {
        DBG_PRINT(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! PCI IRQ Routing Table size modulo sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero (%d)\n",
                  static_cast<int>(size % kRoutingEntrySize));
        return false;
    }
    if (version > 0x0AFF || (version & 0xFF) > 20) {
        DBG_PRINT(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal version number in PCI IRQ Routing Table (%d.%d)\n",
                  version >> 8, version & 0xFF);
        return false;
    }
    uint8_t sum = 0;
    CByteReader table = r.Sub(off, size);
    for (size_t i = 0; i < table.Size(); ++i)
        sum = static_cast<uint8_t>(sum + table.U8Or(i));
    if (table.Size() != size || sum != 0) {
        DBG_PRINT(1, "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal checksum in PCI IRQ Routing Table (%02X)\n", sum);
        return false;
    }
    return true;
}

// The slot entries of the table at `off`, as slot records.
void CollectRoutingEntries(const CByteReader& r, size_t off, size_t size, std::vector<PciSlotData>& list)
{
    size_t n = size > kRoutingHeaderSize ? (size - kRoutingHeaderSize) / kRoutingEntrySize : 0;
    for (size_t i = 0; i < n; ++i) {
        CByteReader e = r.Sub(off + kRoutingHeaderSize + i * kRoutingEntrySize, kRoutingEntrySize);
        if (e.Size() != kRoutingEntrySize)
            break;
        if (Debug.IsEnabled()) {
            CTRString line("\nCDeviceBiosBase::GetRoutingTable   : ");
            for (size_t j = 0; j < e.Size(); ++j)
                line.AppendFormat("%02X ", e.U8Or(j));
            Debug.Print(5, "%s", line.c_str());
        }
        PciSlotData d;
        d.bus = e.U8Or(0);
        d.device = static_cast<uint8_t>(e.U8Or(1) >> 3);
        d.slot = e.U8Or(14);
        d.type = kSlotTypeUnknown;
        list.push_back(d);
    }
}

} // namespace

std::vector<PciSlotData> CPciSlotMap::GetSlotMappingFromIrqRoutingTable()
{
    std::vector<PciSlotData> list;
    DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Attempt to get Slot Mapping from IRQ Routing Table.\n");
    {
        CDeviceBios bios;
        bios.Connect();
        const uint8_t* area = bios.MapPhysicalMemory(0, kRoutingAreaStart, kRoutingAreaLength, false);
        if (!area) {
            DBG_PRINT(1, "\nCDeviceBiosBase::GetRoutingTable   : ERROR! Could not map physical memory at 0x%05X",
                      kRoutingAreaStart);
            return list;
        }
        CByteReader r(area, kRoutingAreaLength);
        size_t off = 0;
        if (FindRoutingTable(r, off)) {
            size_t size = r.Le16Or(off + 6);
            if (RoutingTableValid(r, off, size))
                CollectRoutingEntries(r, off, size, list);
        }
        bios.UnmapPhysicalMemory();
        bios.Disconnect();
    }
    for (const PciSlotData& d : list)
        DBG_PRINT(3, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Add device - %s.", d.ToString().c_str());
    if (list.empty())
        DBG_PRINT(1, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): ERROR ## Empty IRQ Routing Table.\n");
    else
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMappingFromIrqRoutingTable(): Success! Gathered %u slots from IRQ Routing Table\n",
                  static_cast<unsigned>(list.size()));
    return list;
}

void CPciSlotMap::UpdateSlotTypeFromSMBios(std::vector<PciSlotData>& irq, const std::vector<PciSlotData>& smbios)
{
    DBG_PRINT(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updating IRQ slot type using data from SMBios.\n");
    for (PciSlotData& entry : irq) {
        const PciSlotData* match = nullptr;
        for (const PciSlotData& s : smbios) {
            if (s.Matches(entry.bus, entry.device)) {
                match = &s;
                break;
            }
        }
        if (match) {
            entry.type = match->type;
            DBG_PRINT(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Updated slot type:");
            DBG_PRINT(2, "\n\t%s", entry.ToString().c_str());
        } else {
            DBG_PRINT(4, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Could not match with any SMBios entry:");
            DBG_PRINT(4, "\n\t%s", entry.ToString().c_str());
        }
    }
    DBG_PRINT(5, "\nCPciSlotMap::UpdateSlotTypeFromSMBios(): Done.\n");
}

std::vector<PciSlotData> CPciSlotMap::GetSlotMapping()
{
    std::vector<PciSlotData> irq = GetSlotMappingFromIrqRoutingTable();
    std::vector<PciSlotData> smbios = GetSlotMappingFromSMBIOS();
    if (!irq.empty()) {
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMapping(): Using slot data from IRQ.\n");
        if (!smbios.empty())
            UpdateSlotTypeFromSMBios(irq, smbios);
        return irq;
    }
    if (!smbios.empty()) {
        DBG_PRINT(4, "\nCPciSlotMap::GetSlotMapping(): Using slot data from SMBios.\n");
        return smbios;
    }
    DBG_PRINT(1, "\nCPciSlotMap::GetSlotMapping(): ERROR # No slot data found on this machine!\n");
    return {};
}

const PciSlotData* CPciSlotMap::FindSlot(const std::vector<PciSlotData>& list, unsigned bus, unsigned device)
{
    DBG_PRINT(5, "\nCPciSlotMap::GetPciSlotNumber() : Searching PCI slot table for bus '%x' device '%x'", bus, device);
    for (const PciSlotData& e : list) {
        DBG_PRINT(5, "\nCPciSlotMap::GetPciSlotNumber() : Check %s", e.ToString().c_str());
        if (e.Matches(bus, device)) {
            DBG_PRINT(3, "\nCPciSlotMap::GetPciSlotNumber() : Found PCI Slot for this device - %d", e.slot);
            return &e;
        }
    }
    return nullptr;
}

CPciSlotMap& CPciSlotMap::Instance()
{
    static CPciSlotMap map;
    return map;
}

void CPciSlotMap::ResetProcessSlotMap()
{
    CPciSlotMap& map = Instance();
    map.m_Slots.clear();
    map.m_bMappingBuilt = false;
}

int CPciSlotMap::GetPciSlotNumber(unsigned int bus, unsigned int device)
{
    CPciSlotMap& map = Instance();
    if (!map.m_bMappingBuilt) {
        map.m_Slots = GetSlotMapping();
        map.m_bMappingBuilt = true;
    }
    if (map.m_Slots.empty()) {
        DBG_PRINT(1, "\nCPciSlotMap::GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.");
        DBG_PRINT(3, "slot number for %02x:%02x not found, assuming SlotNo=0\n", bus, device);
        return 0;
    }
    if (const PciSlotData* e = FindSlot(map.m_Slots, bus, device)) {
        DBG_PRINT(3, "slot %d for %02x:%02x found in slot mapping table\n", e->slot, bus, device);
        return e->slot;
    }
    DBG_PRINT(3, "slot number for %02x:%02x not found, assuming SlotNo=0\n", bus, device);
    return 0;
}
