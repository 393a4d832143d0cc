// Fuzz target: the PCI configuration scan. The input describes up to eight configuration-space
// files under proc/bus/pci of a private root: each record is a bus-name byte, a function-name byte,
// a length byte and that many bytes of configuration space. Name bytes with the top bit set pick
// one of a list of odd names (wrong lengths, bad hex, dots, a domain prefix); the others give the
// usual "bb" / "dd.f" names. Then the name list and the scan run over the tree, with the slot
// lookup when the input length is odd.
#include "FuzzSupport.h"

#include "common/CTRString.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CPciConfigListInternal.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/HwPaths.h"

#include <climits>
#include <cstring>
#include <sys/stat.h>

namespace {

const char* const kOddBusNames[] = {"0000:00", "0000:0g", "1ff", "0", "zz", "00.0", "-1", "ffff:ff", "0001:02", " 0"};
const char* const kOddFunctionNames[] = {"1f.7", "00.8", "0.00", "00.0.0", "0g.0", "devices", "00:0", "ff.f", "00.", "x"};

std::string BusName(uint8_t b)
{
    if (b & 0x80)
        return kOddBusNames[(b & 0x7F) % (sizeof(kOddBusNames) / sizeof(kOddBusNames[0]))];
    CTRString s;
    s.Format("%02x", b & 0x0F);  // a few buses, so that records share them
    return s;
}

std::string FunctionName(uint8_t b)
{
    if (b & 0x80)
        return kOddFunctionNames[(b & 0x7F) % (sizeof(kOddFunctionNames) / sizeof(kOddFunctionNames[0]))];
    CTRString s;
    s.Format("%02x.%x", (b >> 3) & 0x0F, b & 0x07);
    return s;
}

} // namespace

TARVD_FUZZ_TARGET(data, size)
{
    static const std::string root = fuzzsupport::ScratchTree("pci", {"/proc", "/proc/bus", hwinfo::kProcBusPci});
    const std::string pci = root + hwinfo::kProcBusPci;

    // What the previous input made goes, newest first.  Kept in fixed
    // buffers: memory held from one input to the next would look like a
    // leak to the fuzzer, which then checks every input for leaks.
    static char made[16][PATH_MAX];
    static size_t madeCount = 0;
    while (madeCount > 0)
        remove(made[--madeCount]);
    auto remember = [](const std::string& path) {
        if (madeCount < 16 && path.size() < PATH_MAX)
            memcpy(made[madeCount++], path.c_str(), path.size() + 1);
    };

    size_t pos = 0;
    for (int record = 0; record < 8 && pos + 3 <= size; ++record) {
        std::string busDir = pci + "/" + BusName(data[pos]);
        std::string file = busDir + "/" + FunctionName(data[pos + 1]);
        size_t len = data[pos + 2];
        pos += 3;
        if (len > size - pos)
            len = size - pos;
        if (mkdir(busDir.c_str(), 0700) == 0)
            remember(busDir);
        struct stat st {};
        bool existed = lstat(file.c_str(), &st) == 0;
        // Fails harmlessly on a name clash with a directory.
        if (fuzzsupport::WriteWhole(file, data + pos, len) && !existed)
            remember(file);
        pos += len;
    }
    hwinfo::SetRootDirectory(root.c_str());

    CDeviceBusIo::NameList names;
    FUZZ_CHECK(CDeviceBusIo::BuildPciDeviceNameList(names));
    FUZZ_CHECK(names.size() <= 8);
    CPciConfigList list;
    bool any = CPciConfigList::ScanPciSlots(list, (size & 1) != 0);
    FUZZ_CHECK(any == !list.empty());
    FUZZ_CHECK(list.size() <= names.size());
    for (const auto& [address, record] : list) {
        FUZZ_CHECK(names.count(address) == 1);
        (void)CPciCommonConfigHeader::GetPciSubClassDescription(record.header);
    }

    hwinfo::SetRootDirectory(nullptr);
    return 0;
}
