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
        m_Count = 0;
        m_Owner.store(0);
        pthread_mutex_unlock(&m_Mutex);
    }
    pthread_mutex_destroy(&m_Mutex);
}

bool CCriticalSection::IsOwnedByCaller() const
{
    pthread_t owner = m_Owner.load();
    return owner != 0 && pthread_equal(owner, pthread_self());
}

void CCriticalSection::Enter()
{
    if (!m_Usable)
        return;
    if (!IsOwnedByCaller()) {
        pthread_mutex_lock(&m_Mutex);
        m_Owner.store(pthread_self());
    }
    ++m_Count;
}

bool CCriticalSection::TryEnter()
{
    if (!m_Usable)
        return false;
    if (!IsOwnedByCaller()) {
        if (pthread_mutex_trylock(&m_Mutex) != 0)
            return false;
        m_Owner.store(pthread_self());
    }
    ++m_Count;
    return true;
}

void CCriticalSection::Leave()
{
    if (!m_Usable || !IsOwnedByCaller())
        return;
    if (m_Count > 0)
        --m_Count;
    if (m_Count == 0) {
        m_Owner.store(0);
        pthread_mutex_unlock(&m_Mutex);
    }
}

void CCriticalSection::CleanupHandlerForCritSecMutex(void* critSec)
{
    auto* cs = static_cast<CCriticalSection*>(critSec);
    if (cs == nullptr || !cs->m_Usable || !cs->IsOwnedByCaller())
        return;
    cs->m_Count = 0;
    cs->m_Owner.store(0);
    pthread_mutex_unlock(&cs->m_Mutex);
}
