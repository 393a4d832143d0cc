// Physical PCI slots from the firmware: SMBIOS System Slots (type 9) and
// Onboard Devices Extended Information (type 41), and the legacy PCI IRQ
// Routing Table ("$PIR").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One slot record.
struct PciSlotData {
    uint8_t bus = 0;     ///< bus behind the slot (serial slot: the bus its link creates)
    uint8_t device = 0;  ///< device number (function dropped)
    uint8_t slot = 0;    ///< slot number shown to the user (0 = onboard)
    uint8_t type = 2;    ///< SMBIOS slot type; 2 = unknown

    /// True for point-to-point link slot types (PCI Express, its Mini form,
    /// MXM, M.2).  The code ranges are fixed; newer codes count as parallel.
    bool IsSerialBus() const;
    /// "PciSlotData 1a:0.** --> Slot 2 (Serial bus)".
    std::string ToString() const;
    /// True when this entry holds bus `bus`, device `device`: a serial slot
    /// holds every device on its bus, a parallel one only its own device.
    bool Matches(unsigned bus, unsigned device) const;
};

/// Builds and merges the slot lists; holds the process-wide list behind
/// GetPciSlotNumber.
class CPciSlotMap {
public:
    /// Type 9 and type 41 structures of the SMBIOS table (empty on failure).
    static std::vector<PciSlotData> GetSlotMappingFromSMBIOS();
    /// Entries of the "$PIR" table in 0xF0000-0xFFFFF (empty on failure).
    static std::vector<PciSlotData> GetSlotMappingFromIrqRoutingTable();
    /// Both lists merged: the routing table's slots with SMBIOS slot types,
    /// else the SMBIOS list, else empty.
    static std::vector<PciSlotData> GetSlotMapping();
    /// Copies the type of the first matching SMBIOS entry into each IRQ entry.
    static void UpdateSlotTypeFromSMBios(std::vector<PciSlotData>& irq, const std::vector<PciSlotData>& smbios);
    /// First entry of `list` that matches bus/device (with the lookup's
    /// trace lines); null when none.
    static const PciSlotData* FindSlot(const std::vector<PciSlotData>& list, unsigned bus, unsigned device);

    /// Slot number of bus/device from the process-wide list, built on the
    /// first call and never rebuilt; 0 when unknown.
    static int GetPciSlotNumber(unsigned int bus, unsigned int device);
    /// Drops the process-wide list so that the next lookup reads the
    /// firmware again (for replaying another machine's snapshot).
    static void ResetProcessSlotMap();

private:
    static CPciSlotMap& Instance();

    std::vector<PciSlotData> m_Slots;
    bool m_bMappingBuilt = false;
};

/// Convenience: slot number of bus/device (see CPciSlotMap::GetPciSlotNumber).
inline int GetPciSlotNumber(unsigned int bus, unsigned int device)
{
    return CPciSlotMap::GetPciSlotNumber(bus, device);
}
