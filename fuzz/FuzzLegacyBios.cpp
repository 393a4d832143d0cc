// Fuzz target: the legacy BIOS area readers. The input stands for the firmware's memory: it is
// written into a sparse snapshot of physical memory (the memory device under a private root) at
// 0xE0000, where the shadow scan looks for an SMBIOS entry point, and again at 0xF0000, where the
// PCI IRQ Routing Table ("$PIR") is searched. Both readers run over it.
#include "FuzzSupport.h"

#include "common/CDataStream.h"
#include "common/FileIO.h"
#include "common/UniqueHandle.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/HwPaths.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr off_t kShadowArea = 0xE0000;
constexpr off_t kRoutingArea = 0xF0000;
constexpr off_t kMemoryEnd = 0x100000;
constexpr size_t kAreaLength = 0x10000;

const std::string& Root()
{
    static const std::string root = fuzzsupport::ScratchTree("legacy", {"/dev"});
    return root;
}

bool WriteAt(int fd, off_t offset, const std::vector<uint8_t>& area)
{
    return lseek(fd, offset, SEEK_SET) == offset && tarvd::WriteAll(fd, area.data(), area.size());
}

// The snapshot keeps its size from one input to the next; each input rewrites both areas whole (the
// input, then zeros), which is cheaper than truncating the file and letting it grow again.
bool WriteSnapshot(const uint8_t* data, size_t size)
{
    static UniqueFd fd = [] {
        const std::string mem = Root() + hwinfo::kPhysicalMemoryDevice;
        UniqueFd f(open(mem.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (f && ftruncate(f.Get(), kMemoryEnd) != 0)
            f.Reset();
        return f;
    }();
    static std::vector<uint8_t> area(kAreaLength);
    if (!fd)
        return false;
    size_t n = size < kAreaLength ? size : kAreaLength;
    std::copy(data, data + n, area.begin());
    std::fill(area.begin() + static_cast<std::ptrdiff_t>(n), area.end(), uint8_t(0));
    return WriteAt(fd.Get(), kShadowArea, area) && WriteAt(fd.Get(), kRoutingArea, area);
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    if (!WriteSnapshot(data, size))
        return 0;
    const std::string& root = Root();
    hwinfo::SetRootDirectory(root.c_str());

    CSMBios smbios;
    CDataStream header;
    CDataStream table;
    if (smbios.getSmbiosDataFromBiosShadowMemory(header, table)) {
        // Whatever was found lies in the snapshot.
        FUZZ_CHECK(header.GetSize() <= static_cast<size_t>(kMemoryEnd));
        FUZZ_CHECK(table.GetSize() <= static_cast<size_t>(kMemoryEnd));
        smbios.SetTables(header, table);
        smbios.setSmbiosRevisionFromHeader();
        smbios.buildStructureList();
        for (const CByteReader& s : smbios.GetStructures(9))
            FUZZ_CHECK(CSMBios::HeaderOf(s).type == 9);
    }

    std::vector<PciSlotData> routing = CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
    for (const PciSlotData& s : routing)
        (void)s.ToString();

    hwinfo::SetRootDirectory(nullptr);
    return 0;
}
