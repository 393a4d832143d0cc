// The trace of a notification from the daemon, in the words every bundled
// module uses.
#pragma once

#include <cstdint>

#include "framework/tarvd_module.h"
#include "trace/CDebug.h"

namespace tarvdmod {

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
