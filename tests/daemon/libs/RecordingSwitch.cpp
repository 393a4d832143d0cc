// A stand-in for the framework library that records every call it receives (to
// $TEST_SWITCH_RECORD). $TEST_SWITCH_LOAD = "fail" or "throw" changes what slot 2 does;
// $TEST_SWITCH_QUERY = "refuse" makes SW_QueryInterface return false. Built a second time
// with TEST_SWITCH_WITHOUT_QUERY: a framework library without SW_QueryInterface.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "daemon/SwitchInterface.h"
#include "TestRecord.h"

namespace {

bool EnvIs(const char* name, const char* value) { return getenv(name) && strcmp(getenv(name), value) == 0; }

class RecordingSwitch final : public SwitchInterface {
public:
    uint32_t GetInterfaceVersion() override { return Slot(0); }
    uint32_t ReleaseInterface() override { return Slot(1); }
    int LoadModules(_ExtensionModuleLoaderConfig* config) override
    {
        TestRecord("TEST_SWITCH_RECORD", "slot2 flags=%u runmode=%u", config ? config->Flags : 0xFFFFFFFFu,
                   config ? config->RunMode : 0xFFFFFFFFu);
        if (EnvIs("TEST_SWITCH_LOAD", "throw"))
            throw std::runtime_error("module load failed");
        if (EnvIs("TEST_SWITCH_LOAD", "fail"))
            return 0x100;  // only the low byte counts: this is a failure
        return 1;
    }
    int UnloadModules(uint32_t value) override
    {
        TestRecord("TEST_SWITCH_RECORD", "slot3 value=%u", value);
        if (EnvIs("TEST_SWITCH_UNLOAD", "throw"))
            throw 42;
        return 7;
    }
    int StartAllModules() override { return Slot(4); }
    int StopAllModules() override { return Slot(5); }
#define RESERVED_SLOT(n) \
    int Reserved##n() override { return Slot(n); }
    RESERVED_SLOT(6) RESERVED_SLOT(7) RESERVED_SLOT(8) RESERVED_SLOT(9) RESERVED_SLOT(10)
    RESERVED_SLOT(11) RESERVED_SLOT(12) RESERVED_SLOT(13) RESERVED_SLOT(14) RESERVED_SLOT(15)
    int NotifySystemEvent(uint32_t event, void* data, uint32_t third) override
    {
        if (data)
            TestRecord("TEST_SWITCH_RECORD", "slot16 event=0x%X level=%d third=%u", event, *static_cast<int32_t*>(data),
                       third);
        else
            TestRecord("TEST_SWITCH_RECORD", "slot16 event=0x%X data=null third=%u", event, third);
        return 16;
    }

private:
    int Slot(int n)
    {
        TestRecord("TEST_SWITCH_RECORD", "slot%d", n);
        return n;
    }
};

RecordingSwitch g_Switch;

} // namespace

extern "C" {

#ifndef TEST_SWITCH_WITHOUT_QUERY
__attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t id, SwitchInterface** out)
{
    TestRecord("TEST_SWITCH_RECORD", "query id=%u", id);
    if (EnvIs("TEST_SWITCH_QUERY", "refuse"))
        return false;
    *out = &g_Switch;
    return true;
}
#endif

__attribute__((visibility("default"))) uint32_t SW_AddRef()
{
    TestRecord("TEST_SWITCH_RECORD", "addref");
    return 2;
}

__attribute__((visibility("default"))) uint32_t SW_Release()
{
    TestRecord("TEST_SWITCH_RECORD", "release");
    return 0;
}

} // extern "C"
