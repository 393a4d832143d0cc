// CEvent: manual- or auto-reset events on POSIX threads, optionally shared
// by name inside the process.
#pragma once

#include <atomic>

#include "trace/SyncTypes.h"

struct EventState;

class CEvent {
public:
    /// Without a name a fresh event is made.  With a name, an existing event
    /// of that name in this process is shared (its flags stay as they are;
    /// a different manual-reset request is traced as a warning); otherwise
    /// it is created and registered under the name.  When the state cannot
    /// be made the object has none and its operations fail.  Takes the
    /// creation lock, then the name registry's lock.
    CEvent(bool initiallySignaled = false, bool manualReset = false, const char* name = nullptr);
    /// Shares the other object's event (and copies its closed flag).
    CEvent(const CEvent& other);
    /// Drops this object's event and shares the other's.
    CEvent& operator=(const CEvent& other);
    ~CEvent();

    /// Changes both flags.  True when they were set (or already matched);
    /// false while threads wait, on a closed object or without state
    /// (nothing changes then).  Takes the event mutex.
    bool Create(bool signaled, bool manualReset);
    /// No effect; true.
    bool Open(const char* name, unsigned int access = 0, bool inherit = false);
    bool IsOpen() const { return !m_Closed; }

    /// Signals: wakes all waiters (manual reset) or one (auto reset), then
    /// yields the processor.  True when the wake-up call succeeded; false
    /// on a closed object.  Takes the event mutex.
    bool Set();
    /// Releases the threads waiting now (all of them for manual reset, one
    /// for auto reset) and leaves the event unsignalled.
    bool Pulse();
    /// Clears the signalled state; true (false on a closed object).
    bool Reset();
    /// The signalled state (false on a closed object).
    bool IsSet();
    /// Marks the object closed and signals it so that waiting threads
    /// return (with 0); this object's later operations fail.  True when the
    /// wake-up call succeeded; false when already closed.
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
