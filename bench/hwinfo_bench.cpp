// The hardware inventory on captured firmware and PCI data: the SMBIOS
// structure walk, the "$PIR" search and validation, and the PCI
// configuration scan, against one run of the system's PCI lister.
#include "BenchSupport.h"

#include "common/CDataStream.h"
#include "common/UniqueHandle.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CPciSlotMap.h"
#include "hwinfo/CSMBios.h"
#include "hwinfo/HwPaths.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// The largest SMBIOS table among the fixtures.
const std::string kSmbiosName = "dell-precision-3620";
constexpr uint64_t kPirAddress = 0xF4A60;

std::string SmbiosFixture(const char* ext) { return benchsupport::FixturesDir() + "/smbios/" + kSmbiosName + ext; }

// A root directory holding a machine's snapshot: the SMBIOS tables in
// sysfs, a sparse physical memory file with a "$PIR" table, and the
// captured /proc/bus/pci tree.
class HwRig {
public:
    HwRig()
    {
        namespace fs = std::filesystem;
        std::error_code ec;
        const std::string root = m_Dir.Path();
        fs::create_directories(root + "/sys/firmware/dmi/tables", ec);
        fs::copy_file(SmbiosFixture(".ep"), root + "/sys/firmware/dmi/tables/smbios_entry_point", ec);
        fs::copy_file(SmbiosFixture(".dmi"), root + "/sys/firmware/dmi/tables/DMI", ec);
        fs::create_directories(root + "/proc/bus", ec);
        fs::copy(benchsupport::FixturesDir() + "/procpci-vm", root + "/proc/bus/pci", fs::copy_options::recursive, ec);
        m_Ok = !ec;
        fs::create_directories(root + "/dev", ec);
        UniqueFd mem(open((root + "/dev/mem").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!mem || ftruncate(mem.Get(), 0x100000) != 0)
            m_Ok = false;
        std::vector<uint8_t> pir = PirTable();
        if (mem && pwrite(mem.Get(), pir.data(), pir.size(), static_cast<off_t>(kPirAddress)) !=
                       static_cast<ssize_t>(pir.size()))
            m_Ok = false;
        hwinfo::SetRootDirectory(root.c_str());
        CPciSlotMap::ResetProcessSlotMap();
    }
    ~HwRig()
    {
        hwinfo::SetRootDirectory(nullptr);
        CPciSlotMap::ResetProcessSlotMap();
    }
    bool Ok() const { return m_Ok; }

private:
    // Version 1.0, eight slot entries, checksum over the whole table.
    static std::vector<uint8_t> PirTable()
    {
        constexpr size_t kEntries = 8;
        std::vector<uint8_t> t(32 + 16 * kEntries, 0);
        t[0] = '$';
        t[1] = 'P';
        t[2] = 'I';
        t[3] = 'R';
        t[4] = 0x00;
        t[5] = 0x01;
        t[6] = static_cast<uint8_t>(t.size() & 0xFF);
        t[7] = static_cast<uint8_t>(t.size() >> 8);
        for (size_t i = 0; i < kEntries; ++i) {
            uint8_t* e = &t[32 + 16 * i];
            e[0] = static_cast<uint8_t>(i);             // bus
            e[1] = static_cast<uint8_t>((i + 1) << 3);  // device/function
            e[14] = static_cast<uint8_t>(i + 1);        // slot
        }
        uint8_t sum = 0;
        for (uint8_t c : t)
            sum = static_cast<uint8_t>(sum + c);
        t[31] = static_cast<uint8_t>(-sum);
        return t;
    }

    benchsupport::TempDir m_Dir;
    bool m_Ok = false;
};

std::unique_ptr<HwRig> g_Hw;
void SetupHw(const benchmark::State&) { g_Hw = std::make_unique<HwRig>(); }
void TeardownHw(const benchmark::State&) { g_Hw.reset(); }

void BM_SmbiosWalk(benchmark::State& state)
{
    CDataStream header, data;
    if (!header.ReadFromFile(SmbiosFixture(".ep").c_str()) || !data.ReadFromFile(SmbiosFixture(".dmi").c_str())) {
        state.SkipWithError("SMBIOS fixture missing");
        return;
    }
    CSMBios smbios;
    for (auto _ : state) {
        smbios.SetTables(header, data);
        smbios.setSmbiosRevisionFromHeader();
        if (!smbios.buildStructureList())
            state.SkipWithError("walk failed");
        benchmark::DoNotOptimize(smbios.GetIndexedCount());
    }
}
BENCHMARK(BM_SmbiosWalk)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PirValidate(benchmark::State& state)
{
    if (!g_Hw->Ok()) {
        state.SkipWithError("snapshot could not be made");
        return;
    }
    for (auto _ : state) {
        auto slots = CPciSlotMap::GetSlotMappingFromIrqRoutingTable();
        if (slots.empty())
            state.SkipWithError("no $PIR slots");
        benchmark::DoNotOptimize(slots.data());
    }
}
BENCHMARK(BM_PirValidate)->Setup(SetupHw)->Teardown(TeardownHw)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PciScanSlots(benchmark::State& state)
{
    if (!g_Hw->Ok()) {
        state.SkipWithError("snapshot could not be made");
        return;
    }
    for (auto _ : state) {
        CPciConfigList list;
        if (!CPciConfigList::ScanPciSlots(list, true))
            state.SkipWithError("scan found nothing");
        benchmark::DoNotOptimize(list.size());
    }
}
BENCHMARK(BM_PciScanSlots)->Setup(SetupHw)->Teardown(TeardownHw)->Unit(benchmark::kMicrosecond)->UseRealTime();

#ifdef TARVD_BENCH_LSPCI
// One run of the system's PCI lister with numeric ids, output discarded.
void BM_RefLspci(benchmark::State& state)
{
    char* const argv[] = {const_cast<char*>(TARVD_BENCH_LSPCI), const_cast<char*>("-nn"), nullptr};
    for (auto _ : state) {
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, TARVD_BENCH_LSPCI, &fa, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&fa);
        if (rc != 0) {
            state.SkipWithError("lspci could not be started");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
}
BENCHMARK(BM_RefLspci)->Unit(benchmark::kMicrosecond)->UseRealTime();
#endif

} // namespace
