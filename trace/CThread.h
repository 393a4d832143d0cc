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

    /// Starts `routine(argument)`.  A priority other than 0 selects SCHED_RR
    /// with that priority.  Suspend and stack size are traced only.  A
    /// thread that is not waitable is created detached.  `name` (optional,
    /// at most 15 characters used) names the thread for the system tools.
    bool Start(Routine routine, void* argument, unsigned int priority = 0, bool suspend = false,
               unsigned int stackSize = 0, uint64_t reserved = 0, bool waitable = true,
               const char* name = nullptr);
    /// Joins the thread (only TR_INFINITE is supported; a finite time-out is
    /// traced as a warning and the wait is made without limit).
    bool WaitForTermination(unsigned int timeoutMs = TR_INFINITE);
    /// Joins a joinable thread; cancels a detached one that still runs.
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
