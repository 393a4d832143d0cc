// A module for the framework's tests, built once per TEST_MODULE_KIND: 0 good, 1 without entry
// point, 2 of another ABI version, 3 throwing in load, 4 throwing in start, stop and notify, 5
// refusing to load. Records every call to $TEST_MODULE_RECORD as "<name> <call> ...".
#include <cstdint>
#include <stdexcept>
#include <string>

#include "framework/tarvd_module.h"
#include "../../daemon/libs/TestRecord.h"

namespace {

constexpr int kKind = TEST_MODULE_KIND;
constexpr const char* kName = TEST_MODULE_NAME;

int Load(const TarvdModuleConfig* config)
{
    const char* extra = config->getValue(config, "Greeting");
    TestRecord("TEST_MODULE_RECORD", "%s load runmode=%u flags=%u name=%s greeting=%s", kName, config->runMode,
               config->flags, config->name, extra ? extra : "(none)");
    if (kKind == 3)
        throw std::runtime_error("load");
    return kKind == 5 ? 0 : 1;
}

int Start()
{
    TestRecord("TEST_MODULE_RECORD", "%s start", kName);
    if (kKind == 4)
        throw 1;
    return 1;
}

void Stop()
{
    TestRecord("TEST_MODULE_RECORD", "%s stop", kName);
    if (kKind == 4)
        throw 2;
}

void Notify(uint32_t event, const void* data)
{
    const std::string level = data ? " level=" + std::to_string(*static_cast<const int32_t*>(data)) : "";
    TestRecord("TEST_MODULE_RECORD", "%s notify 0x%X%s", kName, event, level.c_str());
    if (kKind == 4)
        throw std::logic_error("notify");
}

void Unload() { TestRecord("TEST_MODULE_RECORD", "%s unload", kName); }

// The good module reports the oldest interface the framework still loads (the
// bundled modules report the current one); the other ABI is one too new.
constexpr uint32_t kAbi = kKind == 2   ? TARVD_MODULE_ABI_VERSION + 1
                          : kKind == 0 ? (TARVD_MODULE_LIBRARY_MAJOR << 16) | TARVD_MODULE_OLDEST_INTERFACE_VERSION
                                       : TARVD_MODULE_ABI_VERSION;
const TarvdModuleV1 kModule = {kAbi, kName, Load, Start, Stop, Notify, Unload};

} // namespace

#if TEST_MODULE_KIND == 1
#define TEST_MODULE_ENTRY some_other_entry
#else
#define TEST_MODULE_ENTRY tarvd_module_v1
#endif
extern "C" __attribute__((visibility("default"))) const TarvdModuleV1* TEST_MODULE_ENTRY() { return &kModule; }
