// CCriticalSection: a recursive lock built by hand on a default pthread
// mutex (owner thread id + recursion count), so that a thread may re-enter
// what it already holds.
#pragma once

#include <atomic>
#include <pthread.h>

class CCriticalSection {
public:
    CCriticalSection();
    ~CCriticalSection();
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;

    /// Locks the mutex unless the calling thread already owns it, then
    /// raises the recursion count.  Does nothing when the mutex could not be
    /// initialised.
    void Enter();
    /// Lowers the recursion count; at 0 clears the owner and unlocks.
    /// Does nothing when the caller is not the owner.
    void Leave();
    /// Enter without blocking; true when the lock is now held by the caller.
    bool TryEnter();

    bool IsUsable() const { return m_Usable; }
    bool IsOwnedByCaller() const;
    /// The owner's recursion depth (0 when free); exact only for the owner.
    unsigned GetRecursionCount() const { return m_Count.load(std::memory_order_relaxed); }

    /// Cancellation clean-up handler (argument: the CCriticalSection*):
    /// clears owner and count and unlocks, so that a thread cancelled inside
    /// a guarded stretch does not leave the mutex locked.  Push it with
    /// pthread_cleanup_push around stretches that contain cancellation points.
    static void CleanupHandlerForCritSecMutex(void* critSec);

private:
    pthread_mutex_t m_Mutex;
    std::atomic<pthread_t> m_Owner{0};
    // Changed only by the owner; atomic so that other threads may read it.
    std::atomic<unsigned> m_Count{0};
    bool m_Usable = false;
};

/// Holds a CCriticalSection for the lifetime of the object.
class CCriticalSectionLock {
public:
    explicit CCriticalSectionLock(CCriticalSection& cs) : m_Cs(cs) { m_Cs.Enter(); }
    ~CCriticalSectionLock() { m_Cs.Leave(); }
    CCriticalSectionLock(const CCriticalSectionLock&) = delete;
    CCriticalSectionLock& operator=(const CCriticalSectionLock&) = delete;

private:
    CCriticalSection& m_Cs;
};
