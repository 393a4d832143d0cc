// A module for the framework's tests, built several times with different
// TEST_MODULE_KIND values.  Records every call to $TEST_MODULE_RECORD as
// "<name> <call> ...".
#include <cstdint>
#include <stdexcept>

#include "framework/tarvd_module.h"
#include "../../daemon/libs/TestRecord.h"

#define KIND_GOOD 0
#define KIND_NO_ENTRY 1
#define KIND_BAD_ABI 2
#define KIND_THROW_LOAD 3
#define KIND_THROW_RUN 4
#define KIND_REFUSE_LOAD 5

namespace {

const char* g_Name = "?";

int Load(const TarvdModuleConfig* config)
{
    g_Name = TEST_MODULE_NAME;
    const char* extra = config->getValue(config, "Greeting");
    TestRecord("TEST_MODULE_RECORD", "%s load runmode=%u flags=%u name=%s greeting=%s", g_Name, config->runMode,
               config->flags, config->name, extra ? extra : "(none)");
#if TEST_MODULE_KIND == KIND_THROW_LOAD
    throw std::runtime_error("load");
#elif TEST_MODULE_KIND == KIND_REFUSE_LOAD
    return 0;
#else
    return 1;
#endif
}

int Start()
{
    TestRecord("TEST_MODULE_RECORD", "%s start", g_Name);
#if TEST_MODULE_KIND == KIND_THROW_RUN
    throw 1;
#endif
    return 1;
}

void Stop()
{
    TestRecord("TEST_MODULE_RECORD", "%s stop", g_Name);
#if TEST_MODULE_KIND == KIND_THROW_RUN
    throw 2;
#endif
}

void Notify(uint32_t event, const void* data)
{
    if (data)
        TestRecord("TEST_MODULE_RECORD", "%s notify 0x%X level=%d", g_Name, event, *static_cast<const int32_t*>(data));
    else
        TestRecord("TEST_MODULE_RECORD", "%s notify 0x%X", g_Name, event);
#if TEST_MODULE_KIND == KIND_THROW_RUN
    throw std::logic_error("notify");
#endif
}

void Unload()
{
    TestRecord("TEST_MODULE_RECORD", "%s unload", g_Name);
}

#if TEST_MODULE_KIND == KIND_BAD_ABI
constexpr uint32_t kAbi = TARVD_MODULE_ABI_VERSION + 1;
#else
constexpr uint32_t kAbi = TARVD_MODULE_ABI_VERSION;
#endif
const TarvdModuleV1 kModule = {kAbi, TEST_MODULE_NAME, Load, Start, Stop, Notify, Unload};

} // namespace

#if TEST_MODULE_KIND != KIND_NO_ENTRY
extern "C" __attribute__((visibility("default"))) const TarvdModuleV1* tarvd_module_v1()
{
    return &kModule;
}
#else
extern "C" __attribute__((visibility("default"))) const TarvdModuleV1* some_other_entry()
{
    return &kModule;
}
#endif
