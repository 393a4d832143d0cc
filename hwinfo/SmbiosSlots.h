// SMBIOS System Slots (type 9) records: decoding and the names of their
// slot type and current usage codes (as the SMBIOS standard numbers them).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/ByteReader.h"

/// The SMBIOS structure type of System Slots.
inline constexpr uint8_t kSmbiosSystemSlotsType = 9;

/// One System Slots structure, decoded; a field the structure is too short
/// for stays absent.
struct SmbiosSystemSlot {
    std::optional<std::string> designation;  ///< string named by byte 0x04 (length 0x05 and more)
    unsigned length = 0;                     ///< formatted length (byte 0x01)
    unsigned type = 0;                       ///< slot type code (byte 0x05)
    unsigned dataBusWidth = 0;               ///< data bus width code (byte 0x06)
    unsigned usage = 0;                      ///< current usage code (byte 0x07)
    unsigned id = 0;                         ///< slot ID (bytes 0x09-0x0A)
    /// Segment group, bus and device/function (bytes 0x0D-0x10, length 0x11 and more).
    std::optional<unsigned> segment, bus, device, function;

    /// True when the address names a device: the firmware marks a slot
    /// without one with segment 0xFFFF and bus 0xFF.
    bool HasDeviceAddress() const { return segment && !(*segment == 0xFFFF && *bus == 0xFF); }
};

/// Decodes the structure that starts at `s` (a view to the end of the
/// table); bytes past the view read as 0.
SmbiosSystemSlot DecodeSystemSlot(const CByteReader& s);
/// String `index` (1-based) of the structure `s`, bounded by the view;
/// absent for index 0, past the strings, or when the view ends first.
std::optional<std::string> SmbiosStructureString(const CByteReader& s, unsigned index);
/// Name of a slot type code; "Unknown type" for codes not defined.
const char* SmbiosSlotTypeName(unsigned type);
/// Name of a data bus width code ("x16", "64 bit"); "Unknown width" for codes not defined.
const char* SmbiosSlotBusWidthName(unsigned width);
/// Name of a current usage code; "Unknown usage" for codes not defined.
const char* SmbiosSlotUsageName(unsigned usage);
