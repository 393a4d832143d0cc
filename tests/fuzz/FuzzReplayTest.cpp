// Replays every seed and every kept crash input of each fuzz target through
// the target's body, so that the normal suite (and its sanitizer builds)
// catches a parser fault that once crashed a fuzzer.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" int FuzzEntryProcStatus(const uint8_t* data, size_t size);
extern "C" int FuzzEntryTraceReader(const uint8_t* data, size_t size);
extern "C" int FuzzEntryTraceConfig(const uint8_t* data, size_t size);
extern "C" int FuzzEntryIniFile(const uint8_t* data, size_t size);
extern "C" int FuzzEntryRegistry(const uint8_t* data, size_t size);
extern "C" int FuzzEntryProcText(const uint8_t* data, size_t size);
extern "C" int FuzzEntrySmbios(const uint8_t* data, size_t size);
extern "C" int FuzzEntryLegacyBios(const uint8_t* data, size_t size);
extern "C" int FuzzEntryPciConfig(const uint8_t* data, size_t size);
extern "C" int FuzzEntryPerfMonProc(const uint8_t* data, size_t size);

namespace {

using Entry = int (*)(const uint8_t*, size_t);

struct Target {
    const char* name;
    Entry entry;
};

const Target kTargets[] = {
    {"proc_status", FuzzEntryProcStatus}, {"trace_reader", FuzzEntryTraceReader},
    {"trace_config", FuzzEntryTraceConfig}, {"ini_file", FuzzEntryIniFile},
    {"registry", FuzzEntryRegistry},     {"proc_text", FuzzEntryProcText},
    {"smbios", FuzzEntrySmbios},         {"legacy_bios", FuzzEntryLegacyBios},
    {"pci_config", FuzzEntryPciConfig},  {"perf_mon_proc", FuzzEntryPerfMonProc},
};

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
        std::string data = fuzzsupport::ReadWhole(f.string());
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
