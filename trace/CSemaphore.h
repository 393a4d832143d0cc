// CSemaphore: a counting semaphore on a POSIX unnamed semaphore.
#pragma once

#include "trace/SyncTypes.h"

struct SemaphoreState;

class CSemaphore {
public:
    CSemaphore() = default;
    ~CSemaphore();
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    /// Without a name: replaces any semaphore held by a new one that starts
    /// at `initialCount`, capped by `maximumCount` (the maximum is not
    /// enforced afterwards); false when the old one could not be destroyed
    /// or the new one not made.  With a name: shares an existing registered
    /// semaphore of that name, if any (dropping the one held); when there
    /// is none the call returns true and the object is left as it was.
    /// Takes the registry lock.
    bool Create(long initialCount, long maximumCount, const char* name = nullptr);
    /// Makes this object's semaphore findable under `name` by later named
    /// Create calls of the process.  False when the object has none, when
    /// the semaphore is already registered or when the name is taken.  The
    /// name is removed with the semaphore's last reference.
    bool Register(const char* name);

    /// -1 without semaphore.  TR_INFINITE blocks (0, or -1 on error).  A
    /// finite time-out makes one attempt that never blocks: 0 when it
    /// succeeded, otherwise 102 for a time-out of 0 and -1 for any other.
    int Wait(unsigned int timeoutMs);
    /// Posts `count` times; false without semaphore or when count < 1.
    bool Release(long count = 1);
    /// Drops this object's reference; the last one destroys the semaphore
    /// (and removes its registered name).  False without semaphore or when
    /// the destruction failed.
    bool Delete();

    bool HasSemaphore() const { return m_State != nullptr; }

private:
    SemaphoreState* m_State = nullptr;
};
