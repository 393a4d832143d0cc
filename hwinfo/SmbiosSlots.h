// SMBIOS System Slots (type 9) records: decoding and the names of their
// slot type and current usage codes (SMBIOS reference specification, 7.10).
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
    unsigned usage = 0;                      ///< current usage code (byte 0x07)
    /// Segment group, bus and device/function (bytes 0x0D-0x10, length 0x11 and more).
    std::optional<unsigned> segment, bus, device, function;
};

/// Decodes the structure that starts at `s` (a view to the end of the
/// table); bytes past the view read as 0.
SmbiosSystemSlot DecodeSystemSlot(const CByteReader& s);
/// String `index` (1-based) of the structure `s`, bounded by the view;
/// absent for index 0, past the strings, or when the view ends first.
std::optional<std::string> SmbiosStructureString(const CByteReader& s, unsigned index);
/// Name of a slot type code; "Unknown type" for codes not defined.
const char* SmbiosSlotTypeName(unsigned type);
/// Name of a current usage code; "Unknown usage" for codes not defined.
const char* SmbiosSlotUsageName(unsigned usage);
