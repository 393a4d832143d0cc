// CThread: a POSIX thread started and stopped by its owner.
#pragma once

#include <cstdint>
#include <memory>
#include <pthread.h>

#include "trace/SyncTypes.h"

class CThread {
public:
    using Routine = void* (*)(void*);

    CThread() = default;
    /// Joins a joinable thread that is still held (the owner must have told
    /// it to stop); a detached one is left alone.
    ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    /// Starts `routine(argument)`; a thread this object still holds is
    /// killed (see Kill) first.  A priority other than 0 selects SCHED_RR
    /// with that priority (when the process may not use it, the start
    /// fails: a thread asked to run real-time does not silently run at
    /// ordinary priority).  Suspend and stack size are
    /// traced only.  A thread that is not waitable is created detached.
    /// `name` (optional, at most 15 characters used) names the thread for
    /// the system tools.  False when the thread could not be made (or the
    /// routine is null); the object then holds no thread.
    bool Start(Routine routine, void* argument, unsigned int priority = 0, bool suspend = false,
               unsigned int stackSize = 0, uint64_t reserved = 0, bool waitable = true,
               const char* name = nullptr);
    /// Joins the thread.  A finite time-out is not supported: it is traced
    /// as a warning and the wait goes on until the thread has ended, so that
    /// a caller that goes on to free what the thread uses is safe.  True
    /// when there is no thread or it was joined (the object then holds
    /// none); false for a detached thread or when the join failed.
    bool WaitForTermination(unsigned int timeoutMs = TR_INFINITE);
    /// Waits up to `timeoutMs` (TR_INFINITE: without limit) for the started
    /// routine to return, without joining.  True when it has returned (or
    /// there is no thread); the thread is still held and is collected by
    /// WaitForTermination or Kill, which then do not block.
    bool WaitForExit(unsigned int timeoutMs) const;
    /// Joins a joinable thread (blocking until it ends: the caller must have
    /// told it to stop; the time-out is not used); cancels a detached one
    /// that still runs.  The object holds no thread afterwards.  False when
    /// there was no thread or the join or cancel failed.
    bool Kill(unsigned int timeoutMs = 0);

    /// True while the started routine has not returned.
    bool IsAlive() const;
    /// The pthread id, 0 when none.
    pthread_t GetId() const { return m_Thread; }

    struct Shared;

private:
    pthread_t m_Thread = 0;
    bool m_Alive = false;
    bool m_Waitable = false;
    std::shared_ptr<Shared> m_Shared;
};
