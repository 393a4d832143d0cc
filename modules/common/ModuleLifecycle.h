// Steps of a bundled module's life that every module takes alike: starting
// its worker thread and tracing a notification from the daemon, in the
// words every bundled module uses.
#pragma once

#include <cstdint>

#include "framework/tarvd_module.h"
#include "trace/CDebug.h"
#include "trace/CThread.h"

namespace tarvdmod {

/// Starts the module's worker thread `name` on `routine`; traces that the
/// module started, or that `what` could not be started.
inline bool StartWorker(CThread& thread, CThread::Routine routine, void* argument, const char* module,
                        const char* name, const char* what)
{
    if (!thread.Start(routine, argument, 0, false, 0, 0, true, name)) {
        DBG_PRINT(1, "\n%-20s: ## ERROR! cannot start the %s", module, what);
        return false;
    }
    DBG_PRINT(2, "\n%-20s: started", module);
    return true;
}

/// `module`: the module's trace name; `stoppingNote`: added to the line of
/// the daemon's stop (what the module no longer does from then on).
inline void TraceNotification(const char* module, uint32_t event, const void* data, const char* stoppingNote)
{
    if (event == TARVD_EVENT_DAEMON_STOPPING) {
        DBG_PRINT(2, "\n%-20s: notified: daemon is stopping%s", module, stoppingNote);
    } else if (event == TARVD_EVENT_OS_SHUTDOWN && data) {
        DBG_PRINT(2, "\n%-20s: notified: operating system shutdown, run level %d", module,
                  *static_cast<const int32_t*>(data));
    } else {
        DBG_PRINT(2, "\n%-20s: notified: event 0x%X", module, event);
    }
}

} // namespace tarvdmod
