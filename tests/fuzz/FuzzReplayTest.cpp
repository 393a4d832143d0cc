// Replays every seed and kept crash input of each fuzz target through its body, so that the
// normal suite (and its sanitizer builds) catches a parser fault that once crashed a fuzzer.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "support/TestSupport.h"

// name of the corpus folder, name of the body
#define TARVD_FUZZ_TARGETS(X)                                                                     \
    X(proc_status, ProcStatus) X(trace_reader, TraceReader) X(trace_config, TraceConfig)         \
    X(ini_file, IniFile) X(registry, Registry) X(proc_text, ProcText) X(smbios, Smbios)          \
    X(legacy_bios, LegacyBios) X(pci_config, PciConfig) X(perf_mon_proc, PerfMonProc)          \
    X(netlink, Netlink)

#define DECLARE_ENTRY(dir, name) extern "C" int FuzzEntry##name(const uint8_t* data, size_t size);
TARVD_FUZZ_TARGETS(DECLARE_ENTRY)

namespace {

struct Target {
    const char* name;
    int (*entry)(const uint8_t*, size_t);
};

#define TARGET_ROW(dir, name) {#dir, FuzzEntry##name},
const Target kTargets[] = {TARVD_FUZZ_TARGETS(TARGET_ROW)};

class FuzzReplay : public ::testing::TestWithParam<Target> {};

// Every file of corpus/<target> and regressions/<target>.
std::vector<std::filesystem::path> Inputs(const std::string& target)
{
    std::vector<std::filesystem::path> files;
    for (const char* kind : {"corpus", "regressions"}) {
        std::filesystem::path dir = std::filesystem::path(TARVD_FUZZ_DIR) / kind / target;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(dir, ec))
            if (e.is_regular_file())
                files.push_back(e.path());
    }
    return files;
}

TEST_P(FuzzReplay, EveryKeptInputRunsCleanly)
{
    const Target& t = GetParam();
    std::vector<std::filesystem::path> files = Inputs(t.name);
    ASSERT_FALSE(files.empty()) << "no seed inputs for " << t.name;
    for (const auto& f : files) {
        SCOPED_TRACE(f.string());
        const std::string data = testsupport::ReadFile(f.string());
        EXPECT_EQ(0, t.entry(reinterpret_cast<const uint8_t*>(data.data()), data.size()));
    }
}

// The edges of every target: nothing, one byte, and an input over the cap.
TEST_P(FuzzReplay, EmptyTinyAndOversizedInputs)
{
    const Target& t = GetParam();
    EXPECT_EQ(0, t.entry(nullptr, 0));
    const uint8_t one = '[';
    EXPECT_EQ(0, t.entry(&one, 1));
    std::string big(fuzzsupport::kMaxInput + 1, '=');
    EXPECT_EQ(0, t.entry(reinterpret_cast<const uint8_t*>(big.data()), big.size()));
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(kTargets),
                         [](const ::testing::TestParamInfo<Target>& info) { return std::string(info.param.name); });

} // namespace
