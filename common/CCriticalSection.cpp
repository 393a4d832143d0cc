#include "common/CCriticalSection.h"

CCriticalSection::CCriticalSection()
{
    m_Usable = pthread_mutex_init(&m_Mutex, nullptr) == 0;
}

CCriticalSection::~CCriticalSection()
{
    if (!m_Usable)
        return;
    // A thread that destroys the lock it holds releases it first.
    if (IsOwnedByCaller()) {
        m_Count.store(0, std::memory_order_relaxed);
        m_Owner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_Mutex);
    }
    pthread_mutex_destroy(&m_Mutex);
}

// The owner and the count are changed only by the thread that holds the
// mutex, and a thread finds its own id in m_Owner exactly when it stored it
// itself and has not cleared it since: relaxed accesses are enough (the
// mutex orders everything else), and they spare the full fences that
// sequentially consistent stores and read-modify-writes cost on every
// Enter and Leave.
bool CCriticalSection::IsOwnedByCaller() const
{
    pthread_t owner = m_Owner.load(std::memory_order_relaxed);
    return owner != 0 && pthread_equal(owner, pthread_self());
}

void CCriticalSection::Enter()
{
    if (!m_Usable)
        return;
    if (!IsOwnedByCaller()) {
        pthread_mutex_lock(&m_Mutex);
        m_Owner.store(pthread_self(), std::memory_order_relaxed);
    }
    m_Count.store(m_Count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool CCriticalSection::TryEnter()
{
    if (!m_Usable)
        return false;
    if (!IsOwnedByCaller()) {
        if (pthread_mutex_trylock(&m_Mutex) != 0)
            return false;
        m_Owner.store(pthread_self(), std::memory_order_relaxed);
    }
    m_Count.store(m_Count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

void CCriticalSection::Leave()
{
    if (!m_Usable || !IsOwnedByCaller())
        return;
    unsigned count = m_Count.load(std::memory_order_relaxed);
    if (count > 0)
        m_Count.store(--count, std::memory_order_relaxed);
    if (count == 0) {
        m_Owner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_Mutex);
    }
}

void CCriticalSection::CleanupHandlerForCritSecMutex(void* critSec)
{
    auto* cs = static_cast<CCriticalSection*>(critSec);
    if (cs == nullptr || !cs->m_Usable || !cs->IsOwnedByCaller())
        return;
    cs->m_Count.store(0, std::memory_order_relaxed);
    cs->m_Owner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&cs->m_Mutex);
}
