// The machine's identity as the firmware's SMBIOS structures state it: BIOS
// (type 0), system (1), baseboard (2), chassis (3), processors (4), physical
// memory arrays (16) and memory devices (17).  Only the fields an
// administrator compares with other tools are decoded.
//
// Every field is read only when the structure's formatted length covers it
// (older SMBIOS versions have shorter structures) and the bytes lie inside
// the table; otherwise it stays absent.  A string field whose string number
// is 0 ("no string") is absent as well; one naming a string the structure
// does not have holds kSmbiosBadStringIndex.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/ByteReader.h"

class CSMBios;

/// The text of a string field whose string number lies past the
/// structure's strings (a damaged or hand-made table).
inline constexpr const char* kSmbiosBadStringIndex = "<BAD INDEX>";

using SmbiosText = std::optional<std::string>;

struct SmbiosBiosInfo {
    SmbiosText vendor, version, releaseDate;
    std::optional<uint64_t> romSizeBytes;  ///< incl. the extended size (3.1 and later)
    std::optional<unsigned> biosMajor, biosMinor;  ///< system BIOS revision (2.4 and later; 0xFF: absent)
};

struct SmbiosSystemInfo {
    SmbiosText manufacturer, productName, version, serialNumber;
    /// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" (upper case); the first three
    /// fields little-endian from SMBIOS 2.6 on, as stored before.  All bytes
    /// 0xFF reads "Not Settable", all bytes 0 "Not Present".
    SmbiosText uuid;
    SmbiosText skuNumber, family;  ///< 2.4 and later
};

struct SmbiosBaseboardInfo {
    SmbiosText manufacturer, productName, version, serialNumber, assetTag;
};

struct SmbiosChassisInfo {
    SmbiosText manufacturer, version, serialNumber, assetTag;
    std::optional<unsigned> type;  ///< chassis type code without the lock bit
    bool locked = false;
};

struct SmbiosProcessorInfo {
    SmbiosText socket, manufacturer, version;
    std::optional<unsigned> family;  ///< incl. the 2.6 "Processor Family 2" field
    std::optional<unsigned> maxSpeedMHz, currentSpeedMHz;  ///< 0: unknown, absent
    bool populated = false;  ///< status bit 6: a processor sits in the socket
    /// 2.5 and later; the 3.0 extended counts where the byte reads 0xFF.
    std::optional<unsigned> coreCount, coresEnabled, threadCount;
};

struct SmbiosMemoryArrayInfo {
    std::optional<unsigned> location, use, errorCorrection;
    std::optional<uint64_t> maxCapacityBytes;  ///< incl. the extended capacity (2.7 and later)
    std::optional<unsigned> deviceCount;
};

struct SmbiosMemoryDeviceInfo {
    SmbiosText locator, bankLocator, manufacturer, serialNumber, partNumber;
    /// False for size 0 ("No Module Installed").
    bool installed = false;
    /// Bytes; absent for size 0xFFFF (unknown) or a field too short.
    std::optional<uint64_t> sizeBytes;
    std::optional<unsigned> type;     ///< memory type code
    std::optional<unsigned> speedMTs;  ///< 2.3 and later, incl. the 3.3 extended speed; 0: unknown, absent
};

struct SmbiosIdentity {
    std::optional<SmbiosBiosInfo> bios;
    std::optional<SmbiosSystemInfo> system;
    std::optional<SmbiosBaseboardInfo> baseboard;  ///< the first baseboard
    std::optional<SmbiosChassisInfo> chassis;      ///< the first chassis
    std::vector<SmbiosProcessorInfo> processors;
    std::vector<SmbiosMemoryArrayInfo> memoryArrays;
    std::vector<SmbiosMemoryDeviceInfo> memoryDevices;
};

/// Decodes one structure (a view from its first byte to the end of the
/// table); `major`/`minor` is the table's revision (for the UUID order).
SmbiosBiosInfo DecodeSmbiosBios(const CByteReader& s);
SmbiosSystemInfo DecodeSmbiosSystem(const CByteReader& s, unsigned major, unsigned minor);
SmbiosBaseboardInfo DecodeSmbiosBaseboard(const CByteReader& s);
SmbiosChassisInfo DecodeSmbiosChassis(const CByteReader& s);
SmbiosProcessorInfo DecodeSmbiosProcessor(const CByteReader& s);
SmbiosMemoryArrayInfo DecodeSmbiosMemoryArray(const CByteReader& s);
SmbiosMemoryDeviceInfo DecodeSmbiosMemoryDevice(const CByteReader& s);

/// The identity from the structure list of `bios` (after buildStructureList()).
SmbiosIdentity DecodeSmbiosIdentity(const CSMBios& bios);

/// Names of codes, as the SMBIOS reference names them; "Other"-like
/// fallbacks for codes not defined.
const char* SmbiosChassisTypeName(unsigned type);
const char* SmbiosProcessorFamilyName(unsigned family);
const char* SmbiosMemoryTypeName(unsigned type);
const char* SmbiosArrayLocationName(unsigned location);
const char* SmbiosArrayUseName(unsigned use);
const char* SmbiosErrorCorrectionName(unsigned ecc);
