// The registry: loading and saving a file of 200,000 values, and setting
// and querying values of one key of 100,000 values, against a key-file
// library holding the same content as an INI file.
#include "BenchSupport.h"

#include "registry/CRegistry.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#ifdef TARVD_BENCH_HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kKeys = 2000;
constexpr int kValuesPerKey = 100; // 200,000 values in all
constexpr int kBigKeyValues = 100000;

// One value's text, the same in both file formats: the four value types in
// turn (string, expandable string, number, binary).
struct BenchValue {
    int type; // 1 s, 2 es, 4 d, 3 b
    std::string text;
};

BenchValue MakeValue(int key, int value)
{
    char buf[96];
    switch (value % 4) {
    case 0:
        snprintf(buf, sizeof(buf), "device description %d of adapter %d", value, key);
        return {1, buf};
    case 1:
        snprintf(buf, sizeof(buf), "%%TR_HOME%%/modules/mod%d_%d.so", key, value);
        return {2, buf};
    case 2:
        snprintf(buf, sizeof(buf), "%d", key * 1000 + value);
        return {4, buf};
    default:
        snprintf(buf, sizeof(buf), "%02x %02x %02x %02x %02x %02x %02x %02x ", key & 0xFF, value & 0xFF, 0x10,
                 0x20, 0xab, 0xcd, 0xef, 0x01);
        return {3, buf};
    }
}

std::string KeyName(int key)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "Key%04d", key);
    return buf;
}

std::string ValueName(int value)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "Value%03d", value);
    return buf;
}

// The registry file: HKEY_LOCAL_MACHINE\SOFTWARE\Bench\Key0000..1999, each
// with 100 values, and the other root keys empty.
std::string RegistryText()
{
    static const char* const kTag[] = {"", "=s=", "=es=", "=b=", "=d="};
    std::string t;
    t.reserve(12u << 20);
    t += "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Bench]\n";
    for (int k = 0; k < kKeys; ++k) {
        t += "[" + KeyName(k) + "]\n";
        for (int v = 0; v < kValuesPerKey; ++v) {
            BenchValue bv = MakeValue(k, v);
            t += ValueName(v) + kTag[bv.type] + bv.text + "\n";
        }
        t += "\n";
    }
    t += "\n\n\n";
    for (const char* root : {"HKEY_CURRENT_USER", "HKEY_USERS", "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG"})
        t += std::string("[") + root + "]\n\n";
    t += "\n";
    return t;
}

#ifdef TARVD_BENCH_HAVE_GLIB
// The same content as a key file: one group per key, numbers as integers,
// binary values as their hex text.
std::string KeyFileText()
{
    std::string t;
    t.reserve(12u << 20);
    for (int k = 0; k < kKeys; ++k) {
        t += "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Bench\\" + KeyName(k) + "]\n";
        for (int v = 0; v < kValuesPerKey; ++v)
            t += ValueName(v) + "=" + MakeValue(k, v).text + "\n";
        t += "\n";
    }
    return t;
}
#endif

// ---- load and save ----------------------------------------------------------------

class RegistryFileRig {
public:
    RegistryFileRig()
    {
        benchsupport::WriteFile(m_Dir.Sub("registry"), RegistryText());
        CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());
#ifdef TARVD_BENCH_HAVE_GLIB
        benchsupport::WriteFile(m_Dir.Sub("registry.ini"), KeyFileText());
#endif
    }
    ~RegistryFileRig()
    {
        CRegistry::ResetForTests();
        CRegistry::SetRegistryDirectory(nullptr);
    }
    std::string KeyFilePath() const { return m_Dir.Sub("registry.ini"); }

private:
    benchsupport::TempDir m_Dir;
};

std::unique_ptr<RegistryFileRig> g_FileRig;

void SetupFileRig(const benchmark::State&) { g_FileRig = std::make_unique<RegistryFileRig>(); }
void TeardownFileRig(const benchmark::State&) { g_FileRig.reset(); }

void BM_RegistryLoad(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        CRegistry::ResetForTests();
        state.ResumeTiming();
        CRegistry::SetupTree(false);
        if (!CRegistry::IsSetUp()) {
            state.SkipWithError("registry file not loaded");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kKeys * kValuesPerKey);
}
BENCHMARK(BM_RegistryLoad)->Setup(SetupFileRig)->Teardown(TeardownFileRig)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RegistrySave(benchmark::State& state)
{
    CRegistry::SetupTree(false);
    unsigned counter = 0;
    for (auto _ : state) {
        // Releasing a handle after a change writes the whole tree.
        CRegistry handle(CRegistry::HKEY_LOCAL_MACHINE);
        handle.SetValue("BenchCounter", counter++);
    }
    state.SetItemsProcessed(state.iterations() * kKeys * kValuesPerKey);
}
BENCHMARK(BM_RegistrySave)->Setup(SetupFileRig)->Teardown(TeardownFileRig)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef TARVD_BENCH_HAVE_GLIB
void BM_RefKeyFileLoad(benchmark::State& state)
{
    const std::string path = g_FileRig->KeyFilePath();
    for (auto _ : state) {
        GKeyFile* kf = g_key_file_new();
        if (!g_key_file_load_from_file(kf, path.c_str(), G_KEY_FILE_NONE, nullptr))
            state.SkipWithError("key file not loaded");
        state.PauseTiming();
        g_key_file_free(kf);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kKeys * kValuesPerKey);
}
BENCHMARK(BM_RefKeyFileLoad)->Setup(SetupFileRig)->Teardown(TeardownFileRig)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RefKeyFileSave(benchmark::State& state)
{
    const std::string path = g_FileRig->KeyFilePath();
    GKeyFile* kf = g_key_file_new();
    g_key_file_load_from_file(kf, path.c_str(), G_KEY_FILE_NONE, nullptr);
    int counter = 0;
    for (auto _ : state) {
        g_key_file_set_integer(kf, "HKEY_LOCAL_MACHINE", "BenchCounter", counter++);
        if (!g_key_file_save_to_file(kf, path.c_str(), nullptr))
            state.SkipWithError("key file not saved");
    }
    g_key_file_free(kf);
    state.SetItemsProcessed(state.iterations() * kKeys * kValuesPerKey);
}
BENCHMARK(BM_RefKeyFileSave)->Setup(SetupFileRig)->Teardown(TeardownFileRig)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// ---- one key of 100,000 values ------------------------------------------------------

std::vector<std::string> BigKeyNames()
{
    std::vector<std::string> names;
    names.reserve(kBigKeyValues);
    for (int i = 0; i < kBigKeyValues; ++i) {
        char buf[32];
        snprintf(buf, sizeof(buf), "Setting%06d", i);
        names.emplace_back(buf);
    }
    return names;
}

// The names are visited in a scattered order, so that no look-up profits
// from the one before.
size_t Scatter(size_t i) { return (i * 7919u) % kBigKeyValues; }

class BigKeyRig {
public:
    BigKeyRig() : m_Names(BigKeyNames())
    {
        benchsupport::WriteFile(m_Dir.Sub("registry"), "[HKEY_LOCAL_MACHINE]\nBench=d=1\n\n\n");
        CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());
        m_Handle = std::make_unique<CRegistry>(CRegistry::HKEY_LOCAL_MACHINE);
        m_Handle->CreateKey(nullptr, "SOFTWARE\\BigKey");
        for (int i = 0; i < kBigKeyValues; ++i)
            m_Handle->SetValue(m_Names[static_cast<size_t>(i)].c_str(), static_cast<unsigned>(i));
#ifdef TARVD_BENCH_HAVE_GLIB
        m_KeyFile = g_key_file_new();
        for (int i = 0; i < kBigKeyValues; ++i)
            g_key_file_set_integer(m_KeyFile, "BigKey", m_Names[static_cast<size_t>(i)].c_str(), i);
#endif
    }
    ~BigKeyRig()
    {
        m_Handle.reset();
        CRegistry::ResetForTests();
        CRegistry::SetRegistryDirectory(nullptr);
#ifdef TARVD_BENCH_HAVE_GLIB
        g_key_file_free(m_KeyFile);
#endif
    }
    CRegistry& Handle() { return *m_Handle; }
    const std::vector<std::string>& Names() const { return m_Names; }
#ifdef TARVD_BENCH_HAVE_GLIB
    GKeyFile* KeyFile() { return m_KeyFile; }
#endif

private:
    benchsupport::TempDir m_Dir;
    std::vector<std::string> m_Names;
    std::unique_ptr<CRegistry> m_Handle;
#ifdef TARVD_BENCH_HAVE_GLIB
    GKeyFile* m_KeyFile = nullptr;
#endif
};

std::unique_ptr<BigKeyRig> g_BigKey;
void SetupBigKey(const benchmark::State&) { g_BigKey = std::make_unique<BigKeyRig>(); }
void TeardownBigKey(const benchmark::State&) { g_BigKey.reset(); }

void BM_RegistrySetValue(benchmark::State& state)
{
    CRegistry& handle = g_BigKey->Handle();
    const auto& names = g_BigKey->Names();
    size_t i = 0;
    for (auto _ : state) {
        handle.SetValue(names[Scatter(i)].c_str(), static_cast<unsigned>(i));
        ++i;
    }
}
BENCHMARK(BM_RegistrySetValue)->Setup(SetupBigKey)->Teardown(TeardownBigKey)->UseRealTime();

void BM_RegistryQueryValue(benchmark::State& state)
{
    CRegistry& handle = g_BigKey->Handle();
    const auto& names = g_BigKey->Names();
    size_t i = 0;
    unsigned sum = 0;
    for (auto _ : state) {
        unsigned out = 0;
        handle.QueryValue(&out, names[Scatter(i++)].c_str());
        sum += out;
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_RegistryQueryValue)->Setup(SetupBigKey)->Teardown(TeardownBigKey)->UseRealTime();

#ifdef TARVD_BENCH_HAVE_GLIB
void BM_RefKeyFileSetValue(benchmark::State& state)
{
    GKeyFile* kf = g_BigKey->KeyFile();
    const auto& names = g_BigKey->Names();
    size_t i = 0;
    for (auto _ : state) {
        g_key_file_set_integer(kf, "BigKey", names[Scatter(i)].c_str(), static_cast<int>(i));
        ++i;
    }
}
BENCHMARK(BM_RefKeyFileSetValue)->Setup(SetupBigKey)->Teardown(TeardownBigKey)->UseRealTime();

void BM_RefKeyFileQueryValue(benchmark::State& state)
{
    GKeyFile* kf = g_BigKey->KeyFile();
    const auto& names = g_BigKey->Names();
    size_t i = 0;
    int sum = 0;
    for (auto _ : state)
        sum += g_key_file_get_integer(kf, "BigKey", names[Scatter(i++)].c_str(), nullptr);
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_RefKeyFileQueryValue)->Setup(SetupBigKey)->Teardown(TeardownBigKey)->UseRealTime();
#endif

} // namespace
