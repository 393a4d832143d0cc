// INI files: reading and writing one key of a file of 1,000 sections, each
// call opening the file as the profile functions do, against a key-file
// library loading (and saving) the same file.
#include "BenchSupport.h"

#include "trace/CIniFile.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>

#ifdef TARVD_BENCH_HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kSections = 1000;
constexpr int kKeysPerSection = 5;
// A key in the middle of the file.
constexpr const char* kSection = "Section0500";
constexpr const char* kKey = "Key3";

std::string IniText()
{
    std::string t;
    char buf[128];
    for (int s = 0; s < kSections; ++s) {
        snprintf(buf, sizeof(buf), "[Section%04d]\n", s);
        t += buf;
        for (int k = 0; k < kKeysPerSection; ++k) {
            snprintf(buf, sizeof(buf), "Key%d=value %d of section %d\n", k, k, s);
            t += buf;
        }
        t += "\n";
    }
    return t;
}

class IniRig {
public:
    IniRig() { benchsupport::WriteFile(Path(), IniText()); }
    std::string Path() const { return m_Dir.Sub("bench.ini"); }

private:
    benchsupport::TempDir m_Dir;
};

std::unique_ptr<IniRig> g_Ini;
void SetupIni(const benchmark::State&) { g_Ini = std::make_unique<IniRig>(); }
void TeardownIni(const benchmark::State&) { g_Ini.reset(); }

// Values of one length, so that the file keeps its size.
const char* Alternate(unsigned i) { return (i & 1) ? "value A of the bench" : "value B of the bench"; }

void BM_IniGet(benchmark::State& state)
{
    const std::string path = g_Ini->Path();
    char buf[256];
    for (auto _ : state) {
        unsigned n = GetPrivateProfileString(kSection, kKey, "", buf, sizeof(buf), path.c_str());
        if (n == 0)
            state.SkipWithError("key not found");
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_IniGet)->Setup(SetupIni)->Teardown(TeardownIni)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_IniSet(benchmark::State& state)
{
    const std::string path = g_Ini->Path();
    unsigned i = 0;
    for (auto _ : state)
        if (!WritePrivateProfileString(kSection, kKey, Alternate(i++), path.c_str()))
            state.SkipWithError("write failed");
}
BENCHMARK(BM_IniSet)->Setup(SetupIni)->Teardown(TeardownIni)->Unit(benchmark::kMicrosecond)->UseRealTime();

#ifdef TARVD_BENCH_HAVE_GLIB
void BM_RefKeyFileIniGet(benchmark::State& state)
{
    const std::string path = g_Ini->Path();
    for (auto _ : state) {
        GKeyFile* kf = g_key_file_new();
        g_key_file_load_from_file(kf, path.c_str(), G_KEY_FILE_NONE, nullptr);
        gchar* v = g_key_file_get_string(kf, kSection, kKey, nullptr);
        if (!v)
            state.SkipWithError("key not found");
        g_free(v);
        g_key_file_free(kf);
    }
}
BENCHMARK(BM_RefKeyFileIniGet)->Setup(SetupIni)->Teardown(TeardownIni)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_RefKeyFileIniSet(benchmark::State& state)
{
    const std::string path = g_Ini->Path();
    unsigned i = 0;
    for (auto _ : state) {
        GKeyFile* kf = g_key_file_new();
        g_key_file_load_from_file(kf, path.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
        g_key_file_set_string(kf, kSection, kKey, Alternate(i++));
        if (!g_key_file_save_to_file(kf, path.c_str(), nullptr))
            state.SkipWithError("save failed");
        g_key_file_free(kf);
    }
}
BENCHMARK(BM_RefKeyFileIniSet)->Setup(SetupIni)->Teardown(TeardownIni)->Unit(benchmark::kMicrosecond)->UseRealTime();
#endif

} // namespace
