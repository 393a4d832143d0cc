// Fuzz target: the SMBIOS reader of the hardware inventory. The input is an entry point and a
// structure table (first byte: the entry point's length, the next that many bytes the entry point,
// the rest the table), written where the kernel publishes them under a private root; then the
// revision, the structure walk, the lookups of slots (type 9) and onboard devices (type 41), the
// slot list built from them and the machine identity.
#include "FuzzSupport.h"

#include "common/ByteReader.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/HwPaths.h"
#include "hwinfo/SmbiosIdentity.h"

namespace {

const std::string& Root()
{
    static const std::string root =
        fuzzsupport::ScratchTree("smbios", {"/sys", "/sys/firmware", "/sys/firmware/dmi", "/sys/firmware/dmi/tables"});
    return root;
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    if (size == 0)
        return 0;
    size_t epLen = data[0];
    if (epLen > size - 1)
        epLen = size - 1;
    const std::string& root = Root();
    if (!fuzzsupport::WriteWhole(root + hwinfo::kSysfsSmbiosEntryPoint, data + 1, epLen) ||
        !fuzzsupport::WriteWhole(root + hwinfo::kSysfsSmbiosTable, data + 1 + epLen, size - 1 - epLen))
        return 0;
    hwinfo::SetRootDirectory(root.c_str());

    CSMBios smbios;
    if (smbios.Connect()) {
        FUZZ_CHECK(smbios.GetData().GetSize() <= size);
        size_t total = 0;
        for (uint8_t type : {uint8_t(0), uint8_t(9), uint8_t(41), uint8_t(127)}) {
            for (const CByteReader& s : smbios.GetStructures(type)) {
                // Every view lies inside the table and starts with its type.
                FUZZ_CHECK(s.Size() >= 1);
                FUZZ_CHECK(s.Size() <= smbios.GetData().GetSize());
                FUZZ_CHECK(CSMBios::HeaderOf(s).type == type);
                ++total;
            }
        }
        FUZZ_CHECK(total <= smbios.GetIndexedCount());
        (void)smbios.GetMajor();
        (void)smbios.GetMinor();
        SmbiosIdentity id = DecodeSmbiosIdentity(smbios);
        FUZZ_CHECK(id.processors.size() + id.memoryDevices.size() <= smbios.GetIndexedCount());
        for (const SmbiosMemoryDeviceInfo& m : id.memoryDevices)
            FUZZ_CHECK(m.installed || !m.sizeBytes);
    }
    smbios.Disconnect();
    FUZZ_CHECK(smbios.GetIndexedCount() == 0);

    std::vector<PciSlotData> slots = CPciSlotMap::GetSlotMappingFromSMBIOS();
    for (const PciSlotData& s : slots)
        (void)s.ToString();

    hwinfo::SetRootDirectory(nullptr);
    return 0;
}
