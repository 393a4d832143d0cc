// The raw side of SMBIOS acquisition: entry-point records, physical memory
// through the memory device, and the readers of the UEFI-published tables.
// Internal to the hardware inventory (and its tests); not part of the SDK.
#pragma once

#include <cstddef>
#include <cstdint>

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
