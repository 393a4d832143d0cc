// CEvent: manual- or auto-reset events on POSIX threads, optionally shared
// by name inside the process.
#pragma once

#include <atomic>

#include "trace/SyncTypes.h"

struct EventState;

class CEvent {
public:
    /// Without a name a fresh event is made.  With a name, an existing event
    /// of that name is shared (its manual-reset setting stays, a mismatch is
    /// traced); otherwise it is created and registered under the name.
    CEvent(bool initiallySignaled = false, bool manualReset = false, const char* name = nullptr);
    /// Shares the other object's event.
    CEvent(const CEvent& other);
    CEvent& operator=(const CEvent& other);
    ~CEvent();

    /// Changes both flags; false while threads wait (nothing changes then).
    bool Create(bool signaled, bool manualReset);
    /// No effect; true.
    bool Open(const char* name, unsigned int access = 0, bool inherit = false);
    bool IsOpen() const { return !m_Closed; }

    /// Signals: wakes all waiters (manual reset) or one (auto reset).
    bool Set();
    /// Wakes the current waiters without leaving the event signalled.
    bool Pulse();
    bool Reset();
    bool IsSet();
    /// Marks the object closed and signals it so that waiting threads return.
    bool Close();

    /// 0 = signalled, 102 = time-out, -1 = error or closed.  The time-out is
    /// in milliseconds on CLOCK_MONOTONIC; TR_INFINITE waits without limit.
    /// The second argument has no effect.
    int Wait(unsigned int timeoutMs = TR_INFINITE, bool alertable = false);

    /// Number of threads blocked in Wait on this event's shared state (0
    /// without state).  For diagnostics: the number may change right after
    /// it was read.  Takes the event mutex.
    unsigned int GetWaiterCount() const;

private:
    void Attach(EventState* state);
    void Detach();

    EventState* m_State = nullptr;
    std::atomic<bool> m_Closed{false};
};
