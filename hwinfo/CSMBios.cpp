#include "hwinfo/CSMBios.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/CTRString.h"
#include "common/FileIO.h"
#include "hwinfo/CSMBiosInternal.h"
#include "hwinfo/HwPaths.h"
#include "trace/CDebug.h"

namespace {

constexpr uint64_t kShadowStart = 0xE0000;
constexpr unsigned long kShadowLength = 0x20000;
// The last paragraph of the shadow area is never searched: an entry point
// there could not hold its 31 bytes.
constexpr size_t kShadowScanEnd = 0x1FFF0;
constexpr size_t kEsxHeaderLength = 31;
constexpr size_t kEsxFirstRead = 64;
constexpr size_t kEsxTableSlack = 32;
constexpr size_t kSystabLine = 255;
constexpr uint8_t kEndOfTableType = 127;

size_t PageSize()
{
    long p = sysconf(_SC_PAGESIZE);
    return p > 0 ? static_cast<size_t>(p) : 4096u;
}

void TraceDump(unsigned level, const CDataStream& s)
{
    if (Debug.IsEnabled())
        Debug.Print(level, "\n%s", s.DumpHex().c_str());
}

} // namespace

const char* SmbiosSourceName(SmbiosSource source)
{
    switch (source) {
    case SmbiosSource::Sysfs: return "sysfs";
    case SmbiosSource::UefiMemory: return "uefi-memory";
    case SmbiosSource::Esx: return "esx";
    case SmbiosSource::BiosShadow: return "bios-shadow";
    case SmbiosSource::None: break;
    }
    return "none";
}

// ---------------------------------------------------------------------------
// Physical memory

namespace hwinfo {

const uint8_t* MapPhysicalRange(int fd, uint64_t address, uint64_t length, bool readWrite, UniqueMapping& mapping)
{
    mapping.Reset();
    size_t page = PageSize();
    uint64_t base = address - (address % page);
    uint64_t mapLength = length + (address % page);
    if (length == 0 || mapLength < length) {
        errno = EINVAL;
        return nullptr;
    }
    struct stat st {};
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        // A snapshot file: touching a page past its end would raise SIGBUS.
        uint64_t size = static_cast<uint64_t>(st.st_size);
        if (address > size || length > size - address) {
            errno = ENXIO;
            return nullptr;
        }
    }
    if (mapLength > static_cast<uint64_t>(SIZE_MAX) || base > static_cast<uint64_t>(INT64_MAX)) {
        errno = EOVERFLOW;
        return nullptr;
    }
    int prot = PROT_READ | (readWrite ? PROT_WRITE : 0);
    void* p = mmap(nullptr, static_cast<size_t>(mapLength), prot, MAP_SHARED, fd, static_cast<off_t>(base));
    if (p == MAP_FAILED)
        return nullptr;
    mapping = UniqueMapping(p, static_cast<size_t>(mapLength));
    return static_cast<const uint8_t*>(p) + (address % page);
}

} // namespace hwinfo

bool CDeviceBios::Connect()
{
    DBG_PRINT(4, "\nCDeviceBiosBase     :   connect to BIOS device...");
    m_bConnected = true;
    return true;
}

void CDeviceBios::Disconnect()
{
    if (!m_bConnected)
        return;
    UnmapPhysicalMemory();
    m_bConnected = false;
    DBG_PRINT(4, "\nCDeviceBiosBase     :   disconnect from BIOS device");
}

const uint8_t* CDeviceBios::MapPhysicalMemory(uint32_t addressHigh, uint32_t addressLow, unsigned long length,
                                              bool readWrite)
{
    if (!m_bConnected) {
        DBG_PRINT(1, "\nCDeviceBios (Map) : ## ERROR: DeviceBios is not connected - fix this!!\n");
        m_LastErrno = ENODEV;
        return nullptr;
    }
    uint64_t address = (static_cast<uint64_t>(addressHigh) << 32) | addressLow;
    if (address == 0 || length == 0) {
        DBG_PRINT(1, "\nCDeviceBios (Map)   : ## ERROR: Physical address or size is 0 for physical memory mapping - fix this!!\n");
        m_LastErrno = EINVAL;
        return nullptr;
    }
    if (m_Mapping) {
        DBG_PRINT(2, "\nCDeviceBios (Map)   : ## WARNING! Mapped physical memory already existing - will be unmapped before new mapping performed!");
        UnmapPhysicalMemory();
    }
    std::string path = hwinfo::RootedPath(hwinfo::kPhysicalMemoryDevice);
    m_Fd.Reset(open(path.c_str(), (readWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC));
    if (!m_Fd) {
        m_LastErrno = errno;
        DBG_PRINT(1, "\n## ERROR: Opening of /dev/mem failed (errno=%d)!", m_LastErrno);
        return nullptr;
    }
    DBG_PRINT(4, "\nCDeviceBios (Map)   : map 0x%lx bytes at 0x%llx %s", length,
              static_cast<unsigned long long>(address), readWrite ? "read-write" : "read-only");
    const uint8_t* p = hwinfo::MapPhysicalRange(m_Fd.Get(), address, length, readWrite, m_Mapping);
    if (!p) {
        m_LastErrno = errno;
        DBG_PRINT(1, "\nCDeviceBios (Map)   : ## ERROR: mmap failed (errno=%d) %s", m_LastErrno, strerror(m_LastErrno));
        m_Fd.Reset();
        return nullptr;
    }
    m_pBase = static_cast<uint8_t*>(m_Mapping.Get());
    m_Length = m_Mapping.Length();
    return p;
}

void CDeviceBios::UnmapPhysicalMemory()
{
    if (m_Mapping) {
        DBG_PRINT(4, "\nCDeviceBios (Unmap) : unmapped 0x%x bytes at 0x%x from 0x%p on %d...\n",
                  static_cast<unsigned>(m_Length), 0u, static_cast<void*>(m_pBase), m_Fd.Get());
    }
    m_Mapping.Reset();
    m_pBase = nullptr;
    m_Length = 0;
    m_Fd.Reset();
}

// ---------------------------------------------------------------------------
// Acquisition

bool CBiosTables::GetAnySMBiosFromSysfs(CDataStream& header, CDataStream& data)
{
    CDataStream h;
    CDataStream d;
    if (!h.ReadFromFile(hwinfo::RootedPath(hwinfo::kSysfsSmbiosEntryPoint).c_str()) || h.IsEmpty()) {
        DBG_PRINT(3, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios entry file.");
        return false;
    }
    if (!d.ReadFromFile(hwinfo::RootedPath(hwinfo::kSysfsSmbiosTable).c_str()) || d.IsEmpty()) {
        DBG_PRINT(2, "\nCBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios data table file.");
        return false;
    }
    header = h;
    data = d;
    DBG_PRINT(2, "\nCBiosTables::GetAnySMBiosFromSysfs() Success : Header (%u) bytes, Data (%u) bytes",
              static_cast<unsigned>(header.GetSize()), static_cast<unsigned>(data.GetSize()));
    return true;
}

bool CBiosTables::GetAnySMBiosFromMemory(CDataStream& header, CDataStream& data)
{
    CDataStream h;
    CDataStream d;
    bool found = false;
    {
        smbios_tables::SMBiosTableFromMemoryV3 v3;
        found = v3.GetBiosData(h, d);
    }
    if (!found) {
        DBG_PRINT(4, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 3 in memory.");
        smbios_tables::SMBiosTableFromMemoryV2 v2;
        found = v2.GetBiosData(h, d);
        if (!found) {
            DBG_PRINT(4, "\nCBiosTables::GetAnySMBiosFromMemory() No SMBios 2 in memory.");
            return false;
        }
    }
    DBG_PRINT(2, "\nCBiosTables::GetAnySMBiosFromMemory() : Read SMBios header (%u) bytes, data (%u) bytes",
              static_cast<unsigned>(h.GetSize()), static_cast<unsigned>(d.GetSize()));
    // GetBiosData succeeds only with both streams filled.
    header = h;
    data = d;
    DBG_PRINT(4, "\nCBiosTables::GetAnySMBiosFromMemory() Success.");
    return true;
}

namespace {

// Skips the entry point of `entryLength` bytes at the start of the ESX
// device, in reads of at most kEsxFirstRead bytes.
bool SkipEsxEntryPoint(int fd, const std::string& path, size_t entryLength)
{
    uint8_t buffer[kEsxFirstRead];
    size_t skipped = 0;
    while (skipped < entryLength) {
        size_t chunk = entryLength - skipped < kEsxFirstRead ? entryLength - skipped : kEsxFirstRead;
        ssize_t n = tarvd::ReadFull(fd, buffer, chunk);
        if (n <= 0) {
            DBG_PRINT(1, "GetBiosTableESX        : ERROR: read SMBIOS header from %s failed! (len = %d, BytesToRead = %d), Reason: %s\n",
                      path.c_str(), static_cast<int>(n), static_cast<int>(chunk), n < 0 ? strerror(errno) : "end of file");
            return false;
        }
        skipped += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool CBiosTables::GetBiosTableESX(CDataStream& header, CDataStream& data)
{
    std::string path = hwinfo::RootedPath(hwinfo::kEsxSmbiosDevice);
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;  // not an ESX host
    DBG_PRINT(1, "GetBiosTableESX        : we are running on ESX; file %s succesfully opened!\n", path.c_str());

    uint8_t first[kEsxFirstRead];
    ssize_t got = tarvd::ReadFull(fd.Get(), first, sizeof first);
    if (got < static_cast<ssize_t>(kEsxHeaderLength)) {
        int err = got < 0 ? errno : 0;
        DBG_PRINT(1, "GetBiosTableESX        : ERROR: read SMBIOS header from %s failed! (readlen = %d, hdrlen = %d), Reason: %s\n",
                  path.c_str(), static_cast<int>(got), static_cast<int>(kEsxHeaderLength), strerror(err));
        return false;
    }
    fd.Reset();
    TraceDump(5, CDataStream(first, static_cast<size_t>(got)));

    CDataStream h(first, kEsxHeaderLength);
    CByteReader hr = h.Reader();
    size_t entryLength = hr.U8Or(0x05);
    size_t tableLength = hr.Le16Or(0x16);

    fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        DBG_PRINT(1, "GetBiosTableESX        : ERROR: read SMBIOS header from %s failed! (len = %d, BytesToRead = %d), Reason: %s\n",
                  path.c_str(), 0, static_cast<int>(entryLength), strerror(errno));
        return false;
    }
    // The table follows the entry point on the device.
    if (!SkipEsxEntryPoint(fd.Get(), path, entryLength))
        return false;
    size_t toRead = tableLength + kEsxTableSlack;
    std::vector<uint8_t> table(toRead, 0);
    ssize_t len = tarvd::ReadFull(fd.Get(), table.data(), toRead);
    if (len < 0) {
        DBG_PRINT(1, "GetBiosTableESX        : ERROR: read SMBIOS Table from %s failed! (BytesToRead = %d), Reason: %s\n",
                  path.c_str(), static_cast<int>(toRead), strerror(errno));
        return false;
    }
    if (static_cast<size_t>(len) < tableLength) {
        DBG_PRINT(1, "GetBiosTableESX        : ERROR: read SMBIOS Table from %s failed! (len = %d, TableLen = %d), Reason: no sufficiant data available\n",
                  path.c_str(), static_cast<int>(len), static_cast<int>(tableLength));
        return false;
    }
    DBG_PRINT(1, "GetBiosTableESX        : %d bytes read from SMBIOS Table %s (TableLen = %d, BytesToRead = %d)\n",
              static_cast<int>(len), path.c_str(), static_cast<int>(tableLength), static_cast<int>(toRead));
    header = h;
    data.SetAt(table.data(), static_cast<size_t>(len));
    return true;
}

bool CBiosTables::GetSmbiosData(CDataStream& header, CDataStream& data, CSMBios* shadow, SmbiosSource* source)
{
    DBG_PRINT(5, "\nCBiosTables::GetSmbiosData() Start.");
    SmbiosSource found = SmbiosSource::None;
    if (GetAnySMBiosFromSysfs(header, data)) {
        DBG_PRINT(5, "\nCBiosTables::GetSmbiosData() : Found in sysfs.");
        found = SmbiosSource::Sysfs;
    } else if (GetAnySMBiosFromMemory(header, data)) {
        DBG_PRINT(5, "\nCBiosTables::GetSmbiosData() : Found in memory.");
        found = SmbiosSource::UefiMemory;
    } else if (GetBiosTableESX(header, data)) {
        DBG_PRINT(5, "\nCBiosTables::GetSmbiosData() : ESXi specific SMBios found.");
        found = SmbiosSource::Esx;
    } else {
        DBG_PRINT(1, "\nCBiosTables::GetSmbiosData() : ERROR ## No SMBios found!");
        CSMBios local;
        CSMBios& s = shadow ? *shadow : local;
        if (s.getSmbiosDataFromBiosShadowMemory(header, data)) {
            DBG_PRINT(4, "\nCSMBios (Connect)   : Got SMBIOS data from BIOS shadow memory (%d bytes)",
                      static_cast<int>(data.GetSize()));
            found = SmbiosSource::BiosShadow;
        } else {
            DBG_PRINT(1, "\nCSMBios (Connect)   : ## ERROR! Could not find any SMBIOS data!");
        }
    }
    if (source)
        *source = found;
    return found != SmbiosSource::None;
}

// ---------------------------------------------------------------------------
// UEFI-published tables

namespace smbios_tables {

template <typename EPS>
SMBiosTableFromMemory<EPS>::SMBiosTableFromMemory()
{
    DBG_PRINT(5, "\nSMBiosTableFromMemory::Ctor() : Done.");
}

template <typename EPS>
SMBiosTableFromMemory<EPS>::~SMBiosTableFromMemory()
{
    DBG_PRINT(5, "\nSMBiosTableFromMemory::Dtor() : Done.");
}

template <typename EPS>
uint64_t SMBiosTableFromMemory<EPS>::GetUEFIAddress() const
{
    const char* key = GetVersionString();
    std::string paths[2] = {hwinfo::RootedPath(hwinfo::kEfiSystabSysfs), hwinfo::RootedPath(hwinfo::kEfiSystabProc)};
    UniqueFile file;
    std::string used;
    for (const std::string& p : paths) {
        file.Reset(fopen(p.c_str(), "re"));
        if (file) {
            used = p;
            break;
        }
        DBG_PRINT(4, "\nSMBiosTableFromMemory::GetUEFIAddress() : Couldn't open '%s' : %s", p.c_str(), strerror(errno));
    }
    if (!file) {
        DBG_PRINT(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : Failed.");
        return 0;
    }
    DBG_PRINT(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : UEFI interface detected: try to get %s address info from '%s'",
              key, used.c_str());
    uint64_t address = 0;
    // The system table is read with a fixed line buffer: a longer line is
    // taken in pieces, each looked at as a line of its own.
    char line[kSystabLine];
    while (fgets(line, sizeof line, file.Get())) {
        char* eq = strchr(line, '=');
        if (!eq)
            continue;
        *eq = '\0';
        if (strcmp(line, key) == 0) {
            // Automatic base: "0x..." is hexadecimal, as the kernel writes it.
            address = strtoul(eq + 1, nullptr, 0);
            break;
        }
    }
    if (address == 0)
        DBG_PRINT(1, "\nSMBiosTableFromMemory::GetUEFIAddress() : %s address NOT found!", key);
    else
        DBG_PRINT(3, "\nSMBiosTableFromMemory::GetUEFIAddress() : %s address found : %#016llx", key,
                  static_cast<unsigned long long>(address));
    return address;
}

namespace {

// Copies `length` bytes at physical `address` of the memory device into
// `out`; false (traced) when the range cannot be mapped.
bool CopyPhysical(int fd, uint64_t address, uint64_t length, CDataStream& out)
{
    UniqueMapping m;
    const uint8_t* p = hwinfo::MapPhysicalRange(fd, address, length, false, m);
    if (!p) {
        int err = errno;
        DBG_PRINT(1, "\nSMBiosTableFromMemory::GetBiosData() : ERROR # mmap failed : (errno=%d) %s", err, strerror(err));
        return false;
    }
    out.SetAt(p, static_cast<size_t>(length));
    return true;
}

} // namespace

template <typename EPS>
bool SMBiosTableFromMemory<EPS>::GetBiosData(CDataStream& header, CDataStream& data)
{
    DBG_PRINT(5, "\nSMBiosTableFromMemory::GetBiosData() : Start.");
    uint64_t address = GetUEFIAddress();
    if (address == 0) {
        DBG_PRINT(2, "\nSMBiosTableFromMemory::GetBiosData() : SMBios address not found. Abort.");
        return false;
    }
    std::string dev = hwinfo::RootedPath(hwinfo::kPhysicalMemoryDevice);
    UniqueFd fd(open(dev.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        DBG_PRINT(1, "\nSMBiosTableFromMemory::GetBiosData() : ERROR # Couldn't open %s : %s", dev.c_str(), strerror(errno));
        return false;
    }
    size_t page = PageSize();
    CDataStream h;
    CDataStream d;
    DBG_PRINT(3, "\nSMBiosTableFromMemory::GetBiosData() : Map SMBios header (address=0x%016llx, size=0x%016llx, offset=0x%016llx)",
              static_cast<unsigned long long>(address - address % page),
              static_cast<unsigned long long>(address % page + HeaderSize()),
              static_cast<unsigned long long>(address % page));
    if (!CopyPhysical(fd.Get(), address, HeaderSize(), h))
        return false;
    const uint8_t* hp = h.IsEmpty() ? nullptr : h.GetData();
    uint64_t length = GetDataLength(hp);
    uint64_t tableAddress = GetDataAddress(hp);
    if (length == 0 || tableAddress == 0) {
        DBG_PRINT(1, "\nSMBiosTableFromMemory::GetBiosData() : ERROR # Couldn't parse SMBios header! (address=0x%016llx, size=0x%016llx)",
                  static_cast<unsigned long long>(tableAddress), static_cast<unsigned long long>(length));
    } else {
        uint32_t mapLength = static_cast<uint32_t>(length + tableAddress % page);
        DBG_PRINT(3, "\nSMBiosTableFromMemory::GetBiosData() : Map SMBios data table (address=0x%016llx, size=0x%016llx, offset=0x%016llx)",
                  static_cast<unsigned long long>(tableAddress - tableAddress % page),
                  static_cast<unsigned long long>(mapLength), static_cast<unsigned long long>(tableAddress % page));
        if (!CopyPhysical(fd.Get(), tableAddress, length, d))
            return false;
    }
    fd.Reset();
    if (!h.IsEmpty() && !d.IsEmpty()) {
        DBG_PRINT(4, "\nSMBiosTableFromMemory::GetBiosData() : SMBios table found in memory.");
        header = h;
        data = d;
        return true;
    }
    DBG_PRINT(2, "\nSMBiosTableFromMemory::GetBiosData() : SMBios table NOT found in memory.");
    return false;
}

template class SMBiosTableFromMemory<_DMI_30_EPS>;
template class SMBiosTableFromMemory<_DMI_21_EPS>;

// The header pointer always refers to HeaderSize() bytes (the stream copied
// from memory), so the fixed offsets below stay inside it.
uint64_t SMBiosTableFromMemoryV3::GetDataLength(const uint8_t* header) const
{
    return header ? CByteReader(header, HeaderSize()).Le32Or(0x0C) : 0;
}

uint64_t SMBiosTableFromMemoryV3::GetDataAddress(const uint8_t* header) const
{
    return header ? CByteReader(header, HeaderSize()).Le64Or(0x10) : 0;
}

uint64_t SMBiosTableFromMemoryV2::GetDataLength(const uint8_t* header) const
{
    return header ? CByteReader(header, HeaderSize()).Le16Or(0x16) : 0;
}

uint64_t SMBiosTableFromMemoryV2::GetDataAddress(const uint8_t* header) const
{
    return header ? CByteReader(header, HeaderSize()).Le32Or(0x18) : 0;
}

} // namespace smbios_tables

// ---------------------------------------------------------------------------
// CSMBios

bool CSMBios::Acquire()
{
    m_Source = SmbiosSource::None;
    bool found = CBiosTables::GetSmbiosData(m_Header, m_Data, this, &m_Source);
    if (found && m_Source != SmbiosSource::BiosShadow)
        DBG_PRINT(4, "\nCSMBios (Connect)   : SMBIOS data got from operating system (%d bytes)",
                  static_cast<int>(m_Data.GetSize()));
    return found;
}

bool CSMBios::Connect()
{
    Acquire();
    setSmbiosRevisionFromHeader();
    if (m_Data.IsEmpty()) {
        DBG_PRINT(4, "\nCSMBios (Connect)   : SMBIOS %s connected", "NOT");
        return false;
    }
    DBG_PRINT(4, "\nCSMBios (Connect)   : SMBIOS revision: %d.%d", m_Major, m_Minor);
    DBG_PRINT(4, "\nCSMBios (Connect)   : Build structure list...");
    bool ok = buildStructureList();
    DBG_PRINT(4, "\nCSMBios (Connect)   : SMBIOS %s connected", ok ? "successfully" : "NOT");
    return ok;
}

void CSMBios::Disconnect()
{
    m_Header.Clear();
    m_Data.Clear();
    m_Index.clear();
    m_Major = 0;
    m_Minor = 0;
    m_Source = SmbiosSource::None;
    m_LastError.clear();
    DBG_PRINT(4, "\nCSMBios (Disconnect): Disconnected");
}

void CSMBios::setSmbiosRevisionFromHeader()
{
    CByteReader h = m_Header.Reader();
    if (h.Empty()) {
        DBG_PRINT(1, "\nCSMBios::setSmbiosRevisionFromHeader() : Error # No SMBios header to process!");
        return;
    }
    if (h.Size() > 4) {
        if (h.Matches(0, "_SM_", 4)) {
            m_Major = h.U8Or(0x06);
            m_Minor = h.U8Or(0x07);
            return;
        }
        if (h.Size() >= 6 && h.Matches(0, "_SM3_", 5)) {
            m_Major = h.U8Or(0x07);
            m_Minor = h.U8Or(0x08);
            return;
        }
        if (h.Matches(0, "UEFI", 4)) {
            // The two bytes come in swapped order here; users rely on it.
            m_Major = h.U8Or(0x05);
            m_Minor = h.U8Or(0x04);
            return;
        }
    }
    DBG_PRINT(1, "\nCSMBios::setSmbiosRevisionFromHeader() : Error # Invalid SMBios version! (no anchor string matched)");
}

// ---------------------------------------------------------------------------
// Legacy shadow scan

namespace {

// Offset of the first "_SM_" anchor on a paragraph boundary in the shadow
// area, searched up to kShadowScanEnd; false when there is none.
bool FindShadowAnchor(const CByteReader& area, size_t& anchor)
{
    const uint8_t* base = area.Data();
    for (size_t off = 0; off < kShadowScanEnd; ++off) {
        const void* u = memchr(base + off, '_', kShadowScanEnd - off);
        if (!u)
            return false;
        off = static_cast<size_t>(static_cast<const uint8_t*>(u) - base);
        uint64_t phys = kShadowStart + off;
        if (phys % 16 != 0) {
            DBG_PRINT(6, "\nScanForSignature    :   '_' found at a non-paragraph address (0x%08X), continue searching",
                      static_cast<unsigned>(phys));
            continue;
        }
        if (area.Matches(off, "_SM_", 4)) {
            DBG_PRINT(3, "\nScanForSignature    : SMBIOS signature \"_SM_\" found (SM BIOS >= 2.1) at 0x%08X",
                      static_cast<unsigned>(phys));
            anchor = off;
            return true;
        }
    }
    return false;
}

// The entry point's checksum over its own length E (byte 0x05).  E = 0
// forms no sum and stores an empty header.  True when `header` was stored.
bool StoreCheckedEntryPoint(const CByteReader& ep, CDataStream& header)
{
    size_t entryLength = ep.U8Or(0x05);
    if (entryLength != 0) {
        uint8_t sum = 0;
        bool inside = ep.Contains(0, entryLength);
        for (size_t i = 0; inside && i < entryLength; ++i)
            sum = static_cast<uint8_t>(sum + ep.U8Or(i));
        if (!inside || sum != 0) {
            DBG_PRINT(1, "\nCheckSmbiosHeader   : ## CHECKSUM ERROR in DMI structure header!\n");
            return false;
        }
    }
    DBG_PRINT(2, "\nCheckSmbiosHeader   : Checksum OK, storing header");
    if (entryLength != 0)
        header.SetAt(ep.Data(), entryLength);
    return true;
}

// The shadow scan proper on a connected device: anchor, entry point,
// checksum, table.  `expected` receives the entry point's structure count.
bool ReadShadowTables(CDeviceBios& bios, CDataStream& header, CDataStream& data, uint16_t& expected,
                      CTRString& error)
{
    const uint8_t* area = bios.MapPhysicalMemory(0, static_cast<uint32_t>(kShadowStart), kShadowLength, false);
    if (!area) {
        error.Format("Could not map SMBIOS physical memory (LastError = 0x%08X)!", static_cast<unsigned>(bios.GetLastErrno()));
        return false;
    }
    CByteReader r(area, kShadowLength);
    size_t anchor = 0;
    if (!FindShadowAnchor(r, anchor)) {
        error = "No SMBIOS structures found!";
        return false;
    }
    CByteReader ep = r.Sub(anchor, r.Size() - anchor);
    uint32_t tableAddress = ep.Le32Or(0x18);
    uint16_t tableLength = ep.Le16Or(0x16);
    expected = ep.Le16Or(0x1C);
    DBG_PRINT(3, "\nCSMBios (GetShadow) : SMBIOS header size %u, anchor \"_SM_\"", static_cast<unsigned>(ep.U8Or(0x05)));
    DBG_PRINT(2, "\nCSMBios (GetShadow) : DMI Version:    %d.%d (BCD Rev: %02X)", ep.U8Or(0x06), ep.U8Or(0x07),
              ep.U8Or(0x1E));
    DBG_PRINT(2, "\nCSMBios (GetShadow) : Number of structures %d, table address 0x%08X, table size %d", expected,
              tableAddress, tableLength);
    CDataStream h;
    bool stored = StoreCheckedEntryPoint(ep, h);
    DBG_PRINT(3, "\nScanForSignature    : -> SMBIOS %sdetected", stored ? "" : "NOT ");
    if (!stored) {
        error = "No SMBIOS structures found!";
        return false;
    }
    if (tableAddress == 0) {
        error = "No address for SMBIOS strucures detected!";
        return false;
    }
    DBG_PRINT(2, "\nCSMBios (GetShadow) : ## SMBIOS/DMI structures found ##\n");
    const uint8_t* table = bios.MapPhysicalMemory(0, tableAddress, tableLength, false);
    if (!table) {
        error.Format("Remapping of SMBIOS structure memory failed (LastError = 0x%08X)!",
                     static_cast<unsigned>(bios.GetLastErrno()));
        return false;
    }
    header = h;
    data.SetAt(table, tableLength);
    return true;
}

} // namespace

bool CSMBios::getSmbiosDataFromBiosShadowMemory(CDataStream& header, CDataStream& data)
{
    CDeviceBios bios;
    bios.Connect();
    DBG_PRINT(2, "\nCSMBios (GetShadow) : Get SMBIOS data from BIOS shadow memory (E0000...FFFFF)");
    CTRString error;
    bool result = ReadShadowTables(bios, header, data, m_ExpectedCount, error);
    bios.UnmapPhysicalMemory();
    bios.Disconnect();
    if (!result) {
        m_LastError = error;
        DBG_PRINT(1, "\nCSMBios (GetShadow) : ## ERROR! %s", m_LastError.c_str());
    }
    return result;
}

// ---------------------------------------------------------------------------
// Structure list

_DMI_20_HEADER CSMBios::HeaderOf(const CByteReader& s)
{
    _DMI_20_HEADER h;
    h.type = s.U8Or(0);
    h.length = s.U8Or(1);
    h.handle = s.Le16Or(2);
    return h;
}

namespace {

// Level-5 dump of a structure's formatted area, 16 bytes a line.
void TraceFormattedArea(const CByteReader& area)
{
    for (size_t line = 0; line < area.Size(); line += 16) {
        CTRString text("\nBuildStructureList  :    ");
        std::string chars;
        for (size_t i = line; i < line + 16 && i < area.Size(); ++i) {
            uint8_t b = area.U8Or(i);
            text.AppendFormat("%02X ", b);
            chars += (b >= 0x20 && b <= 0x7E) ? static_cast<char>(b) : '.';
        }
        Debug.Print(5, "%s%s", text.c_str(), chars.c_str());
    }
}

// Walks the string set that starts at `s`; returns where the double NUL
// starts, or the table end when there is none.
size_t EndOfStringSet(const CByteReader& t, size_t s)
{
    const size_t end = t.Size();
    size_t q = s;
    size_t stringStart = s;
    while (q < end) {
        if (t.U8Or(q) != 0) {
            ++q;
            continue;
        }
        // A NUL followed by a NUL ends the string set; a byte past the
        // table counts as absent, not as a NUL.
        if (q + 1 < end && t.U8Or(q + 1) == 0)
            break;
        if (Debug.IsEnabled() && q > stringStart) {
            std::string str(reinterpret_cast<const char*>(t.Data() + stringStart), q - stringStart);
            Debug.Print(6, "\nBuildStructureList  :    -> found string \"%s\"", str.c_str());
        }
        ++q;
        stringStart = q;
    }
    return q;
}

} // namespace

bool CSMBios::buildStructureList()
{
    m_Index.clear();
    CByteReader t = m_Data.Reader();
    if (t.Empty()) {
        m_LastError = "## ERROR! SMBIOS structures are not set";
        DBG_PRINT(1, "\nBuildStructureList  : ## ERROR! SMBIOS structures are not set");
        return false;
    }
    const size_t end = t.Size();
    DBG_PRINT(5, "\nBuildStructureList  : struct buffer size = 0x%04X", static_cast<unsigned>(end));
    size_t p = 0;
    int n = 0;
    bool ok = false;
    CTRString error;
    for (;;) {
        _DMI_20_HEADER hdr = HeaderOf(t.Sub(p, end));
        DBG_PRINT(4, "\nBuildStructureList  : - found struct type %d (handle=%d, len=%d)", hdr.type, hdr.handle, hdr.length);
        if (Debug.IsEnabled())
            TraceFormattedArea(t.Sub(p, hdr.length));
        if (p >= end) {
            error.Format("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while reading struct header!\n   struct[%d], type=0x%02X, handle=%d",
                         n, hdr.type, hdr.handle);
            break;
        }
        m_Index[hdr.type].push_back(p);
        size_t s = p + hdr.length;
        if (s > end) {
            error.Format("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while going to struct end!\n   struct[%d], last type=0x%02X, last handle=%d\n   struct Offset 0x%04X",
                         n, hdr.type, hdr.handle, static_cast<unsigned>(p));
            break;
        }
        size_t next = EndOfStringSet(t, s) + 2;
        if (next > end) {
            error.Format("## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while when string table end found!\n   struct[%d], type=0x%02X, handle=%d\n   struct Offset 0x%04X",
                         n, hdr.type, hdr.handle, static_cast<unsigned>(p));
            break;
        }
        if (next == end) {
            DBG_PRINT(4, "\nBuildStructureList  :   end of BIOS structures!");
            ok = true;
            break;
        }
        ++n;
        if (hdr.type == kEndOfTableType) {
            ok = true;
            break;
        }
        p = next;
    }
    if (!ok) {
        m_LastError = error;
        DBG_PRINT(1, "\n----------------------------------------------------------------------\n%s\n----------------------------------------------------------------------",
                  m_LastError.c_str());
        DBG_PRINT(3, "\n   p = 0x%08X, table end = 0x%08X ", static_cast<unsigned>(p), static_cast<unsigned>(end));
    }
    SettleStructureCount(n + 1, n);
    return ok;
}

// The count of the entry point wins when there is one; a differing count
// found by the walk is only traced (with the visited number, as always).
void CSMBios::SettleStructureCount(int found, int visited)
{
    if (m_ExpectedCount == 0)
        m_ExpectedCount = static_cast<uint16_t>(found);
    else if (m_ExpectedCount != found)
        DBG_PRINT(1, "\nBuildStructureList  : ## ERROR! Number of SMBIOS structures found (%d) does not match to number in header (%d)!\n",
                  visited, m_ExpectedCount);
    DBG_PRINT(4, "\nBuildStructureList  : %d SMBIOS structures found", m_ExpectedCount);
}

std::vector<CByteReader> CSMBios::GetStructures(uint8_t type) const
{
    std::vector<CByteReader> out;
    auto it = m_Index.find(type);
    if (it == m_Index.end())
        return out;
    CByteReader t = m_Data.Reader();
    for (size_t off : it->second)
        out.push_back(t.Sub(off, t.Size() - off));
    return out;
}

size_t CSMBios::GetIndexedCount() const
{
    size_t n = 0;
    for (const auto& [type, v] : m_Index)
        n += v.size();
    return n;
}
