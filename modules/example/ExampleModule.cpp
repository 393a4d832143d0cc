// Example extension module: traces when it is loaded, started, notified and
// stopped, and writes a heartbeat line from a thread of its own every few
// seconds (HeartbeatSeconds= in its configuration file, default 5).
#include <cstdlib>
#include <cstring>
#include <memory>

#include "framework/tarvd_module.h"
#include "trace/CDebug.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"

namespace {

struct ExampleState {
    unsigned heartbeatMs = 5000;
    unsigned runMode = 0;
    CEvent stop{false, true, nullptr};  // manual reset: stays set until the next start
    CThread thread;
    bool running = false;
    unsigned long beats = 0;
};

std::unique_ptr<ExampleState> g_State;

void* HeartbeatThread(void* arg)
{
    auto* state = static_cast<ExampleState*>(arg);
    // Wait() returns at once when stop is set, so stopping never waits for a beat.
    while (state->stop.Wait(state->heartbeatMs) == TR_WAIT_TIMEOUT) {
        ++state->beats;
        DBG_PRINT(3, "\nExampleModule       : heartbeat %lu (run mode %u)", state->beats, state->runMode);
    }
    return nullptr;
}

int Load(const TarvdModuleConfig* config)
{
    if (g_State)
        return 1;
    g_State = std::make_unique<ExampleState>();
    g_State->runMode = config->runMode;
    if (const char* value = config->getValue(config, "HeartbeatSeconds")) {
        char* end = nullptr;
        unsigned long seconds = strtoul(value, &end, 10);
        if (end && *end == '\0' && seconds >= 1 && seconds <= 3600)
            g_State->heartbeatMs = static_cast<unsigned>(seconds * 1000);
    }
    DBG_PRINT(2, "\nExampleModule       : loaded from %s (run mode %u, force rescan %u, heartbeat %u ms)",
              config->configFile, config->runMode, config->flags & TARVD_FLAG_FORCE_RESCAN, g_State->heartbeatMs);
    return 1;
}

int Start()
{
    if (!g_State || g_State->running)
        return g_State != nullptr;
    g_State->stop.Reset();
    if (!g_State->thread.Start(HeartbeatThread, g_State.get(), 0, false, 0, 0, true, "example-beat")) {
        DBG_PRINT(1, "\nExampleModule       : ## ERROR! cannot start the heartbeat thread");
        return 0;
    }
    g_State->running = true;
    DBG_PRINT(2, "\nExampleModule       : started");
    return 1;
}

void Stop()
{
    if (!g_State || !g_State->running)
        return;
    g_State->stop.Set();
    g_State->thread.WaitForTermination(TR_INFINITE);
    g_State->running = false;
    DBG_PRINT(2, "\nExampleModule       : stopped after %lu heartbeat(s)", g_State->beats);
}

void Notify(uint32_t event, const void* data)
{
    if (event == TARVD_EVENT_OS_SHUTDOWN && data)
        DBG_PRINT(2, "\nExampleModule       : notified: operating system shutdown, run level %d",
                  *static_cast<const int32_t*>(data));
    else if (event == TARVD_EVENT_DAEMON_STOPPING)
        DBG_PRINT(2, "\nExampleModule       : notified: daemon is stopping");
    else
        DBG_PRINT(2, "\nExampleModule       : notified: event 0x%X", event);
}

void Unload()
{
    Stop();
    g_State.reset();
    DBG_PRINT(2, "\nExampleModule       : unloaded");
}

const TarvdModuleV1 kModule = {TARVD_MODULE_ABI_VERSION, "example", Load, Start, Stop, Notify, Unload};

} // namespace

extern "C" TARVD_MODULE_EXPORT const TarvdModuleV1* tarvd_module_v1()
{
    return &kModule;
}
