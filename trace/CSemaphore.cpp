#include "trace/CSemaphore.h"

#include <cerrno>
#include <climits>
#include <semaphore.h>

#include "common/CStrMap.h"

struct SemaphoreState {
    sem_t sem;
    unsigned int refCount = 1;
    char* name = nullptr;  // registered name (owned by the registry entry), or null
};

namespace {

CStrMap& SemaphoreRegistry()
{
    static CStrMap* registry = new CStrMap();
    return *registry;
}

} // namespace

CSemaphore::~CSemaphore()
{
    Delete();
}

bool CSemaphore::Create(long initialCount, long maximumCount, const char* name)
{
    if (name != nullptr) {
        CStrMap& registry = SemaphoreRegistry();
        CCriticalSectionLock lock(registry.GetLock());
        CStrMap::Entry* e = registry.Lookup(name);
        if (e == nullptr)
            return true;  // nothing of that name: the object stays without semaphore
        auto* shared = static_cast<SemaphoreState*>(e->payload.ptr);
        if (shared == m_State)
            return true;
        Delete();
        ++shared->refCount;
        m_State = shared;
        return true;
    }
    if (m_State != nullptr && !Delete())
        return false;
    // The semaphore starts at the initial count, but never above the
    // maximum (an initial count above it starts at the maximum); the
    // maximum is not enforced afterwards.  It is set up at that value
    // directly: counting down from a large maximum one wait at a time would
    // take seconds.
    long start = initialCount < maximumCount ? initialCount : maximumCount;
    if (start < 0)
        start = 0;
    if (start > static_cast<long>(SEM_VALUE_MAX))
        start = SEM_VALUE_MAX;
    auto* s = new SemaphoreState();
    if (sem_init(&s->sem, 0, static_cast<unsigned int>(start)) != 0) {
        delete s;
        return false;
    }
    m_State = s;
    return true;
}

bool CSemaphore::Register(const char* name)
{
    if (m_State == nullptr || name == nullptr)
        return false;
    CStrMap& registry = SemaphoreRegistry();
    CCriticalSectionLock lock(registry.GetLock());
    // One name a semaphore: the last Delete removes exactly that entry.
    if (m_State->name != nullptr || registry.Lookup(name) != nullptr)
        return false;
    if (registry.SetPointer(name, m_State, 0) < 0)
        return false;
    m_State->name = registry.Lookup(name)->name;
    return true;
}

int CSemaphore::Wait(unsigned int timeoutMs)
{
    if (m_State == nullptr)
        return TR_WAIT_FAILED;
    if (timeoutMs == TR_INFINITE) {
        int rc;
        do {
            rc = sem_wait(&m_State->sem);
        } while (rc != 0 && errno == EINTR);
        return rc == 0 ? TR_WAIT_OBJECT_0 : TR_WAIT_FAILED;
    }
    // Finite waits never block: one attempt.
    if (sem_trywait(&m_State->sem) == 0)
        return TR_WAIT_OBJECT_0;
    return timeoutMs == 0 ? TR_WAIT_TIMEOUT : TR_WAIT_FAILED;
}

bool CSemaphore::Release(long count)
{
    if (m_State == nullptr || count < 1)
        return false;
    int rc = 0;
    for (long i = 0; i < count; ++i)
        rc = sem_post(&m_State->sem);
    return rc == 0;
}

bool CSemaphore::Delete()
{
    SemaphoreState* s = m_State;
    m_State = nullptr;
    if (s == nullptr)
        return false;
    CStrMap& registry = SemaphoreRegistry();
    CCriticalSectionLock lock(registry.GetLock());
    if (--s->refCount != 0)
        return true;
    if (s->name != nullptr)
        registry.Remove(s->name);
    bool ok = sem_destroy(&s->sem) == 0;
    delete s;
    return ok;
}
