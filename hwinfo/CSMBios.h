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

/// The common 4-byte header of every SMBIOS structure, decoded.
struct _DMI_20_HEADER {
    uint8_t type = 0;
    uint8_t length = 0;
    uint16_t handle = 0;
};

/// The source that delivered an SMBIOS table, in the order they are tried.
enum class SmbiosSource { None, Sysfs, UefiMemory, Esx, BiosShadow };

/// Short name of a source: "sysfs", "uefi-memory", "esx", "bios-shadow";
/// "none" for SmbiosSource::None.
const char* SmbiosSourceName(SmbiosSource source);

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
    /// a temporary object when null).  `source` (may be null) receives the
    /// source that answered, SmbiosSource::None when none did.
    static bool GetSmbiosData(CDataStream& header, CDataStream& data, CSMBios* shadow = nullptr,
                              SmbiosSource* source = nullptr);
};

/// The SMBIOS structure list of the running machine.
class CSMBios {
public:
    CSMBios() = default;

    /// Acquire(), revision, structure list.  True when a table was found
    /// and walked without a fatal error.
    bool Connect();
    /// The acquisition chain alone into the object's streams; GetSource()
    /// tells which source answered.  True when one did.
    bool Acquire();
    /// Clears streams, index, revision, source and error text.
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
    /// The source of the last Acquire() (None before, or when none answered).
    SmbiosSource GetSource() const { return m_Source; }
    const std::string& GetLastErrorText() const { return m_LastError; }
    const CDataStream& GetHeader() const { return m_Header; }
    const CDataStream& GetData() const { return m_Data; }

private:
    void SettleStructureCount(int found, int visited);

    CDataStream m_Header;
    CDataStream m_Data;
    uint8_t m_Major = 0;
    uint8_t m_Minor = 0;
    std::map<uint8_t, std::vector<size_t>> m_Index;  // offsets into m_Data
    uint16_t m_ExpectedCount = 0;
    SmbiosSource m_Source = SmbiosSource::None;
    std::string m_LastError;
};
