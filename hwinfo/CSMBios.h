// SMBIOS acquisition (kernel copies, UEFI-published physical address, ESX
// device, legacy BIOS shadow scan) and the structure list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/ByteReader.h"
#include "common/CDataStream.h"
#include "common/UniqueHandle.h"

/// The 64-bit SMBIOS 3.0 entry point ("_SM3_", 24 bytes), as raw bytes.
struct _DMI_30_EPS {
    static constexpr size_t kSize = 24;
    uint8_t bytes[kSize];
};
/// The 32-bit SMBIOS 2.1 entry point ("_SM_", 31 bytes), as raw bytes.
struct _DMI_21_EPS {
    static constexpr size_t kSize = 31;
    uint8_t bytes[kSize];
};
/// The common 4-byte header of every SMBIOS structure, decoded.
struct _DMI_20_HEADER {
    uint8_t type = 0;
    uint8_t length = 0;
    uint16_t handle = 0;
};

/// Physical memory through the memory device (under hwinfo's root).  When
/// the device is a regular file (a snapshot), a range beyond its end is
/// refused instead of mapped, so reading never faults.
class CDeviceBios {
public:
    CDeviceBios() = default;
    ~CDeviceBios() { Disconnect(); }
    CDeviceBios(const CDeviceBios&) = delete;
    CDeviceBios& operator=(const CDeviceBios&) = delete;

    bool Connect();
    void Disconnect();
    bool IsConnected() const { return m_bConnected; }

    /// Maps `length` bytes at physical address (high:low).  Returns a pointer
    /// to the byte at that address, valid for `length` bytes until the next
    /// map or unmap, or null (traced; errno kept in GetLastErrno()).  An
    /// existing mapping is released first.
    const uint8_t* MapPhysicalMemory(uint32_t addressHigh, uint32_t addressLow, unsigned long length,
                                     bool readWrite);
    /// Releases the mapping and closes the device.
    void UnmapPhysicalMemory();
    int GetLastErrno() const { return m_LastErrno; }

private:
    bool m_bConnected = false;
    uint8_t* m_pBase = nullptr;  // mapping base (page aligned)
    size_t m_Length = 0;         // mapping length
    UniqueMapping m_Mapping;
    UniqueFd m_Fd;
    int m_LastErrno = 0;
};

namespace hwinfo {
/// Maps [address, address + length) of the open memory device `fd` read-only
/// into `mapping`; returns a pointer to the byte at `address` or null with
/// errno set.  Regular files are size-checked first (no SIGBUS).
const uint8_t* MapPhysicalRange(int fd, uint64_t address, uint64_t length, bool readWrite, UniqueMapping& mapping);
} // namespace hwinfo

class CSMBios;

/// Stateless acquisition operations.  Each fills header and data only on
/// success and leaves them unchanged on failure.
class CBiosTables {
public:
    /// The kernel's sysfs copies; nothing is verified.
    static bool GetAnySMBiosFromSysfs(CDataStream& header, CDataStream& data);
    /// The physical address published in the UEFI system table: 3.0 first, then 2.1.
    static bool GetAnySMBiosFromMemory(CDataStream& header, CDataStream& data);
    /// The ESX SMBIOS device (entry point followed by the table).
    static bool GetBiosTableESX(CDataStream& header, CDataStream& data);
    /// The fallback chain: sysfs, memory, ESX, BIOS shadow scan (run on
    /// `shadow`, which receives the expected structure count and error text;
    /// a temporary object when null).  `fromShadow` tells which way it went.
    static bool GetSmbiosData(CDataStream& header, CDataStream& data, CSMBios* shadow = nullptr,
                              bool* fromShadow = nullptr);
};

namespace smbios_tables {

/// Reads an SMBIOS table from the physical address that the UEFI system
/// table publishes, for one entry-point revision.
template <typename EPS>
class SMBiosTableFromMemory {
public:
    SMBiosTableFromMemory();
    virtual ~SMBiosTableFromMemory();
    virtual size_t HeaderSize() const = 0;
    virtual const char* GetVersionString() const = 0;
    /// Table length from the header; 0 for a null header.
    virtual uint64_t GetDataLength(const uint8_t* header) const = 0;
    /// Table address from the header; 0 for a null header.
    virtual uint64_t GetDataAddress(const uint8_t* header) const = 0;

    /// Header and table into the outputs (only on success).
    bool GetBiosData(CDataStream& header, CDataStream& data);
    /// The address published under GetVersionString(); 0 when none.
    uint64_t GetUEFIAddress() const;
};

class SMBiosTableFromMemoryV3 : public SMBiosTableFromMemory<_DMI_30_EPS> {
public:
    size_t HeaderSize() const override { return _DMI_30_EPS::kSize; }
    const char* GetVersionString() const override { return "SMBIOS3"; }
    uint64_t GetDataLength(const uint8_t* header) const override;
    uint64_t GetDataAddress(const uint8_t* header) const override;
};

class SMBiosTableFromMemoryV2 : public SMBiosTableFromMemory<_DMI_21_EPS> {
public:
    size_t HeaderSize() const override { return _DMI_21_EPS::kSize; }
    const char* GetVersionString() const override { return "SMBIOS"; }
    uint64_t GetDataLength(const uint8_t* header) const override;
    uint64_t GetDataAddress(const uint8_t* header) const override;
};

extern template class SMBiosTableFromMemory<_DMI_30_EPS>;
extern template class SMBiosTableFromMemory<_DMI_21_EPS>;

} // namespace smbios_tables

/// The SMBIOS structure list of the running machine.
class CSMBios {
public:
    CSMBios() = default;

    /// Acquisition chain, revision, structure list.  True when a table was
    /// found and walked without a fatal error.
    bool Connect();
    /// Clears streams, index, revision and error text.
    void Disconnect();

    /// The legacy scan of 0xE0000-0xFFFFF for a "_SM_" entry point.
    bool getSmbiosDataFromBiosShadowMemory(CDataStream& header, CDataStream& data);
    /// Sets the revision from the entry point's anchor (0.0 when unknown).
    void setSmbiosRevisionFromHeader();
    /// Cuts the data stream into structures, indexed by type.
    bool buildStructureList();

    /// Replaces header and data (for callers that already hold a table).
    void SetTables(const CDataStream& header, const CDataStream& data)
    {
        m_Header = header;
        m_Data = data;
    }

    /// Views of the structures of `type`, in table order, each from the
    /// structure's first byte to the end of the table (empty when absent).
    /// Valid until the data stream changes.
    std::vector<CByteReader> GetStructures(uint8_t type) const;
    /// Decoded header of a structure view.
    static _DMI_20_HEADER HeaderOf(const CByteReader& s);
    /// Number of structures in the index.
    size_t GetIndexedCount() const;

    uint8_t GetMajor() const { return m_Major; }
    uint8_t GetMinor() const { return m_Minor; }
    uint16_t GetExpectedStructureCount() const { return m_ExpectedCount; }
    void SetExpectedStructureCount(uint16_t n) { m_ExpectedCount = n; }
    const std::string& GetLastErrorText() const { return m_LastError; }
    const CDataStream& GetHeader() const { return m_Header; }
    const CDataStream& GetData() const { return m_Data; }

private:
    CDataStream m_Header;
    CDataStream m_Data;
    uint8_t m_Major = 0;
    uint8_t m_Minor = 0;
    std::map<uint8_t, std::vector<size_t>> m_Index;  // offsets into m_Data
    uint16_t m_ExpectedCount = 0;
    std::string m_LastError;
};
