#include "trace/CEvent.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sched.h>

#include "common/CStrMap.h"
#include "trace/CDebug.h"

struct EventState {
    pthread_cond_t cond;
    pthread_mutex_t mutex;
    unsigned int refCount = 1;
    bool manualReset = false;
    bool signaled = false;
    char* name = nullptr;
    unsigned int waiters = 0;
    pthread_condattr_t condAttr;
    // Manual reset: counts the wake-ups of all waiters (Set, Pulse, Close).
    // A waiter returns 0 when it changed during its wait, even when the
    // event was reset (or pulsed) before the waiter ran again; a spurious
    // wake-up finds it unchanged and waits on.
    unsigned long generation = 0;
    // Auto reset: releases granted by Pulse to threads that wait now, each
    // taken by exactly one of them (never more than there are waiters).
    unsigned int pulseTokens = 0;
};

namespace {

const char* NameOf(const EventState* s)
{
    return (s && s->name) ? s->name : "anon";
}

// The process-wide registry of named events, and the outer lock that makes
// look-up plus creation one step.  Function-local, so that they exist
// before any static CEvent of another translation unit is built.
CStrMap& EventRegistry()
{
    static CStrMap* registry = new CStrMap();  // never destroyed: events may outlive static destruction
    return *registry;
}

CCriticalSection& CreationLock()
{
    static CCriticalSection* lock = new CCriticalSection();
    return *lock;
}

EventState* NewState(bool signaled, bool manual, const char* name)
{
    auto* s = new EventState();
    s->manualReset = manual;
    s->signaled = signaled;
    int rc = pthread_condattr_init(&s->condAttr);
    bool attrMade = rc == 0;
    if (rc == 0)
        rc = pthread_condattr_setclock(&s->condAttr, CLOCK_MONOTONIC);
    if (rc != 0) {
        DBG_PRINT(1, "pthread_condattr_setclock(): ## ERROR ##: Set CLOCK_MONOTONIC failed (ret=%d) for event %p <%s> (IsSignaled=%d)\n",
                  rc, static_cast<void*>(s), name ? name : "anon", signaled);
        if (attrMade)
            pthread_condattr_destroy(&s->condAttr);
        delete s;
        return nullptr;
    }
    rc = pthread_cond_init(&s->cond, &s->condAttr);
    if (rc != 0) {
        DBG_PRINT(1, "pthread_cond_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p <%s> (IsSignaled=%d)\n",
                  rc, static_cast<void*>(s), name ? name : "anon", signaled);
        pthread_condattr_destroy(&s->condAttr);
        delete s;
        return nullptr;
    }
    rc = pthread_mutex_init(&s->mutex, nullptr);
    if (rc != 0) {
        DBG_PRINT(1, "pthread_mutex_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p <%s> (IsSignaled=%d)\n",
                  rc, static_cast<void*>(s), name ? name : "anon", signaled);
        pthread_cond_destroy(&s->cond);
        pthread_condattr_destroy(&s->condAttr);
        delete s;
        return nullptr;
    }
    if (name) {
        s->name = strdup(name);
        if (s->name == nullptr) {
            pthread_mutex_destroy(&s->mutex);
            pthread_cond_destroy(&s->cond);
            pthread_condattr_destroy(&s->condAttr);
            delete s;
            return nullptr;
        }
    }
    DBG_PRINT(5, "creating event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(s), NameOf(s), s->signaled);
    return s;
}

void DestroyState(EventState* s)
{
    DBG_PRINT(5, "deleting event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(s), NameOf(s), s->signaled);
    pthread_cond_destroy(&s->cond);
    pthread_mutex_destroy(&s->mutex);
    pthread_condattr_destroy(&s->condAttr);
    free(s->name);
    delete s;
}

// A waiter leaves: releases granted to more threads than still wait would
// otherwise be taken by a later caller of Wait.  Event mutex held.
void LeaveWaiters(EventState* s)
{
    --s->waiters;
    if (s->pulseTokens > s->waiters)
        s->pulseTokens = s->waiters;
}

void WaitCancelled(void* arg)
{
    auto* s = static_cast<EventState*>(arg);
    LeaveWaiters(s);
    pthread_mutex_unlock(&s->mutex);
}

// Wakes the threads waiting now: all of them for a manual-reset event, one
// for an auto-reset event.  Event mutex held.
int WakeWaiters(EventState* s)
{
    if (s->manualReset) {
        ++s->generation;
        return pthread_cond_broadcast(&s->cond);
    }
    return pthread_cond_signal(&s->cond);
}

} // namespace

CEvent::CEvent(bool initiallySignaled, bool manualReset, const char* name)
{
    if (name == nullptr) {
        m_State = NewState(initiallySignaled, manualReset, nullptr);
        return;
    }
    CCriticalSectionLock outer(CreationLock());
    CStrMap& registry = EventRegistry();
    CCriticalSectionLock inner(registry.GetLock());
    if (CStrMap::Entry* e = registry.Lookup(name)) {
        auto* s = static_cast<EventState*>(e->payload.ptr);
        pthread_mutex_lock(&s->mutex);
        ++s->refCount;
        bool signaled = s->signaled;
        bool manual = s->manualReset;
        pthread_mutex_unlock(&s->mutex);
        m_State = s;
        DBG_PRINT(3, "refCount for event %p <%s> incremented (IsSignaled=%d)\n", static_cast<void*>(s), NameOf(s), signaled);
        if (manual != manualReset)
            DBG_PRINT(1, "WARNING: manual setting mismatch for event %p <%s>\n", static_cast<void*>(s), NameOf(s));
        return;
    }
    m_State = NewState(initiallySignaled, manualReset, name);
    if (m_State && registry.SetPointer(name, m_State, 0) < 0) {
        DestroyState(m_State);
        m_State = nullptr;
    }
}

void CEvent::Attach(EventState* s)
{
    m_State = s;
    if (s == nullptr)
        return;
    pthread_mutex_lock(&s->mutex);
    ++s->refCount;
    bool signaled = s->signaled, manual = s->manualReset;
    pthread_mutex_unlock(&s->mutex);
    DBG_PRINT(5, "incr refcount on event %p <%s> (IsSignaled=%d,IsManual=%d)\n", static_cast<void*>(s), NameOf(s), signaled, manual);
}

void CEvent::Detach()
{
    EventState* s = m_State;
    m_State = nullptr;
    if (s == nullptr)
        return;
    // Named states are found through the registry, so the last reference
    // is dropped under the creation lock: nobody can pick the state up
    // between the count reaching 0 and its removal.
    CCriticalSectionLock outer(CreationLock());
    pthread_mutex_lock(&s->mutex);
    unsigned int left = --s->refCount;
    bool signaled = s->signaled;
    pthread_mutex_unlock(&s->mutex);
    DBG_PRINT(5, "decr refcount on event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(s), NameOf(s), signaled);
    if (left != 0)
        return;
    if (s->name) {
        CStrMap& registry = EventRegistry();
        CCriticalSectionLock inner(registry.GetLock());
        CStrMap::Entry* e = registry.Lookup(s->name);
        if (e && e->payload.ptr == s)
            registry.Remove(s->name);
    }
    DestroyState(s);
}

CEvent::CEvent(const CEvent& other) : m_Closed(other.m_Closed.load())
{
    Attach(other.m_State);
}

CEvent& CEvent::operator=(const CEvent& other)
{
    if (this == &other || m_State == other.m_State) {
        m_Closed = other.m_Closed.load();
        return *this;
    }
    Detach();
    Attach(other.m_State);
    m_Closed = other.m_Closed.load();
    return *this;
}

CEvent::~CEvent()
{
    Detach();
}

bool CEvent::Create(bool signaled, bool manualReset)
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    bool ok = true;
    if (s->waiters != 0) {
        ok = false;
    } else if (s->signaled != signaled || s->manualReset != manualReset) {
        DBG_PRINT(5, "Create event %p <%s>, changing attributes (IsSignaled=%d,IsManual=%d) --> (IsSignaled=%d,IsManual=%d)\n",
                  static_cast<void*>(s), NameOf(s), s->signaled, s->manualReset, signaled, manualReset);
        s->signaled = signaled;
        s->manualReset = manualReset;
    }
    pthread_mutex_unlock(&s->mutex);
    return ok;
}

bool CEvent::Open(const char*, unsigned int, bool)
{
    return true;
}

bool CEvent::Set()
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    bool was = s->signaled;
    s->signaled = true;
    int rc = WakeWaiters(s);
    DBG_PRINT(5, "Set event %p <%s> IsSignaled=%d --> IsSignaled=1\n", static_cast<void*>(s), NameOf(s), was);
    pthread_mutex_unlock(&s->mutex);
    sched_yield();
    return rc == 0;
}

bool CEvent::Pulse()
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    bool was = s->signaled;
    int rc = 0;
    if (s->manualReset) {
        rc = WakeWaiters(s);
    } else if (s->pulseTokens < s->waiters) {
        // One more waiter may go.  All are woken, because the thread that a
        // single wake-up reaches may take the signalled state instead of
        // the release; whoever comes first takes the release, the others
        // wait on.
        ++s->pulseTokens;
        rc = pthread_cond_broadcast(&s->cond);
    }
    s->signaled = false;
    DBG_PRINT(5, "Pulse event %p <%s> IsSignaled=%d --> IsSignaled=0\n", static_cast<void*>(s), NameOf(s), was);
    pthread_mutex_unlock(&s->mutex);
    sched_yield();
    return rc == 0;
}

bool CEvent::Reset()
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    DBG_PRINT(5, "Reset event %p <%s>: IsSignaled=%d --> IsSignaled=0\n", static_cast<void*>(s), NameOf(s), s->signaled);
    s->signaled = false;
    pthread_mutex_unlock(&s->mutex);
    return true;
}

bool CEvent::IsSet()
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    bool signaled = s->signaled;
    pthread_mutex_unlock(&s->mutex);
    DBG_PRINT(5, "Check event %p <%s> (IsSignaled=%d)\n", static_cast<void*>(s), NameOf(s), signaled);
    return signaled;
}

bool CEvent::Close()
{
    if (m_Closed || m_State == nullptr)
        return false;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    DBG_PRINT(5, "Close event %p <%s> IsSignaled=%d --> IsSignaled=1\n", static_cast<void*>(s), NameOf(s), s->signaled);
    m_Closed = true;
    s->signaled = true;
    int rc = WakeWaiters(s);
    pthread_mutex_unlock(&s->mutex);
    return rc == 0;
}

unsigned int CEvent::GetWaiterCount() const
{
    EventState* s = m_State;
    if (s == nullptr)
        return 0;
    pthread_mutex_lock(&s->mutex);
    unsigned int n = s->waiters;
    pthread_mutex_unlock(&s->mutex);
    return n;
}

int CEvent::Wait(unsigned int timeoutMs, bool)
{
    if (m_Closed || m_State == nullptr)
        return TR_WAIT_FAILED;
    EventState* s = m_State;
    pthread_mutex_lock(&s->mutex);
    if (s->signaled) {
        if (!s->manualReset)
            s->signaled = false;
        pthread_mutex_unlock(&s->mutex);
        return TR_WAIT_OBJECT_0;
    }
    ++s->waiters;
    struct timespec deadline {};
    if (timeoutMs != TR_INFINITE) {
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += timeoutMs / 1000;
        deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += deadline.tv_nsec / 1000000000L;
            deadline.tv_nsec %= 1000000000L;
        }
    }
    const unsigned long generationAtStart = s->generation;
    int rc = 0;
    int result = TR_WAIT_FAILED;
    pthread_cleanup_push(WaitCancelled, s);
    for (;;) {
        rc = (timeoutMs == TR_INFINITE) ? pthread_cond_wait(&s->cond, &s->mutex)
                                        : pthread_cond_timedwait(&s->cond, &s->mutex, &deadline);
        // A release that arrived is taken even when the time ran out at
        // the same moment.
        if (s->signaled) {
            if (!s->manualReset)
                s->signaled = false;
            result = TR_WAIT_OBJECT_0;
            break;
        }
        if (s->manualReset ? s->generation != generationAtStart : s->pulseTokens > 0) {
            if (!s->manualReset)
                --s->pulseTokens;
            result = TR_WAIT_OBJECT_0;
            break;
        }
        // Spurious wake-up, or another waiter took the release first.
        if (rc == 0 || rc == EINTR)
            continue;
        result = (rc == ETIMEDOUT) ? TR_WAIT_TIMEOUT : TR_WAIT_FAILED;
        break;
    }
    pthread_cleanup_pop(0);
    LeaveWaiters(s);
    pthread_mutex_unlock(&s->mutex);
    return result;
}
