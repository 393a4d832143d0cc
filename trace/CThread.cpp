#include "trace/CThread.h"

#include <cerrno>
#include <condition_variable>
#include <chrono>
#include <cstring>
#include <mutex>
#include <sched.h>
#include <string>

#include "trace/CDebug.h"

// What the starting object and the running thread share.  The thread keeps
// its own reference, so the record outlives an owner that is destroyed
// while a detached thread still runs.
struct CThread::Shared {
    Routine routine = nullptr;
    void* argument = nullptr;
    std::string name;
    std::mutex mutex;
    std::condition_variable finishedCv;
    bool finished = false;
};

namespace {

struct StartBlock {
    std::shared_ptr<CThread::Shared> shared;
};

void MarkFinished(CThread::Shared& s)
{
    std::lock_guard<std::mutex> lock(s.mutex);
    s.finished = true;
    s.finishedCv.notify_all();
}

void* Trampoline(void* arg)
{
    std::shared_ptr<CThread::Shared> shared = std::move(static_cast<StartBlock*>(arg)->shared);
    delete static_cast<StartBlock*>(arg);
    if (!shared->name.empty())
        pthread_setname_np(pthread_self(), shared->name.substr(0, 15).c_str());
    // The finished mark must also be made when the thread is cancelled.
    struct Guard {
        CThread::Shared& s;
        ~Guard() { MarkFinished(s); }
    } guard{*shared};
    return shared->routine(shared->argument);
}

unsigned Hex32(pthread_t t)
{
    return static_cast<unsigned>(t);
}

} // namespace

CThread::~CThread()
{
    if (m_Thread != 0 && m_Waitable)
        pthread_join(m_Thread, nullptr);
}

bool CThread::IsAlive() const
{
    if (m_Thread == 0 || !m_Shared)
        return false;
    std::lock_guard<std::mutex> lock(m_Shared->mutex);
    return !m_Shared->finished;
}

namespace {

// Round-robin real-time scheduling at `priority` for a new thread.
bool SetRealTimePriority(pthread_attr_t& attr, unsigned int priority)
{
    DBG_PRINT(2, "\nThreadPrio=%d", priority);
    int rc = pthread_attr_setschedpolicy(&attr, SCHED_RR);
    if (rc != 0) {
        DBG_PRINT(2, "\npthread_attr_setschedpolicy failed: %d", rc);
        return false;
    }
    struct sched_param param {};
    rc = pthread_attr_getschedparam(&attr, &param);
    if (rc != 0) {
        DBG_PRINT(2, "\npthread_attr_getschedparam failed: %d", rc);
        return false;
    }
    param.sched_priority = static_cast<int>(priority);
    rc = pthread_attr_setschedparam(&attr, &param);
    if (rc != 0) {
        DBG_PRINT(2, "\npthread_attr_setschedparam failed: error=%d priority=%d", rc, priority);
        return false;
    }
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    return true;
}

} // namespace

bool CThread::Start(Routine routine, void* argument, unsigned int priority, bool suspend,
                    unsigned int stackSize, uint64_t, bool waitable, const char* name)
{
    if (routine == nullptr) {
        DBG_PRINT(2, "\npthread_create failed: %d", EINVAL);
        return false;
    }
    bool killAlive = IsAlive();
    DBG_PRINT(5, "\nCThread::Start: Start a thread, Prio=%d, Suspend=%d, StackSize=0x%08x, Waitable=%d, KillAliveThread=%d",
              priority, suspend, stackSize, waitable, killAlive);
    if (killAlive)
        Kill();
    else if (m_Thread != 0 && m_Waitable)
        pthread_join(m_Thread, nullptr);  // an ended but not yet joined thread
    m_Thread = 0;
    m_Waitable = waitable;

    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    DBG_PRINT(4, "\npthread_attr_init: %d", rc);
    if (rc != 0) {
        DBG_PRINT(2, "\npthread_attr_init failed: %d", rc);
        return false;
    }
    struct AttrGuard {
        pthread_attr_t* a;
        ~AttrGuard() { pthread_attr_destroy(a); }
    } attrGuard{&attr};

    if (!waitable) {
        rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (rc != 0) {
            DBG_PRINT(2, "\npthread_attr_setdetachstate failed: %d", rc);
            return false;
        }
    }
    if (priority != 0 && !SetRealTimePriority(attr, priority))
        return false;

    auto shared = std::make_shared<Shared>();
    shared->routine = routine;
    shared->argument = argument;
    if (name)
        shared->name = name;
    auto* block = new StartBlock{shared};
    pthread_t id = 0;
    rc = pthread_create(&id, &attr, Trampoline, block);
    if (rc != 0) {
        delete block;
        DBG_PRINT(2, "\npthread_create failed: %d", rc);
        return false;
    }
    m_Thread = id;
    m_Shared = std::move(shared);
    m_Alive = true;
    DBG_PRINT(2, "\nCThread::Start: thread=0x%08X created, Prio=%d, Waitable=%d, StackSize=0x%x",
              Hex32(id), priority, waitable, stackSize);
    sched_yield();
    return true;
}

bool CThread::WaitForTermination(unsigned int timeoutMs)
{
    if (m_Thread == 0) {
        DBG_PRINT(1, "\nCThread::WaitForTermination: Thread = 0x0%08X doesn't exist !", 0u);
        return true;
    }
    if (timeoutMs != TR_INFINITE)
        DBG_PRINT(1, "\nCThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X termination with timeout",
                  Hex32(m_Thread));
    if (!m_Waitable) {
        DBG_PRINT(1, "\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X", Hex32(m_Thread));
        return false;
    }
    void* status = nullptr;
    int rc = pthread_join(m_Thread, &status);
    if (rc != 0) {
        DBG_PRINT(1, "\nCThread::WaitForTermination: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x",
                  Hex32(m_Thread), rc);
        return false;
    }
    DBG_PRINT(2, "\nCThread::WaitForTermination: a joinable Thread = 0x%08X has terminated, pstat=%p", Hex32(m_Thread), status);
    m_Thread = 0;
    m_Alive = false;
    return true;
}

bool CThread::WaitForExit(unsigned int timeoutMs) const
{
    if (m_Thread == 0 || !m_Shared)
        return true;
    std::unique_lock<std::mutex> lock(m_Shared->mutex);
    auto finished = [this] { return m_Shared->finished; };
    if (timeoutMs == TR_INFINITE) {
        m_Shared->finishedCv.wait(lock, finished);
        return true;
    }
    return m_Shared->finishedCv.wait_for(lock, std::chrono::milliseconds(timeoutMs), finished);
}

bool CThread::Kill(unsigned int)
{
    DBG_PRINT(2, "\nCThread::Kill: Try to kill the Thread = 0x%08X", Hex32(m_Thread));
    if (m_Thread == 0) {
        DBG_PRINT(2, "\nCThread::Kill: Thread = 0x0%08X doesn't exist !", 0u);
        return false;
    }
    bool ok = true;
    if (m_Waitable) {
        DBG_PRINT(2, "\nCThread::Kill: Try to join a joinable Thread = 0x%08X", Hex32(m_Thread));
        void* status = nullptr;
        int rc = pthread_join(m_Thread, &status);
        if (rc == 0) {
            DBG_PRINT(2, "\nCThread::Kill: a joinable Thread = 0x%08X has terminated, pstat=%p", Hex32(m_Thread), status);
        } else {
            DBG_PRINT(1, "\nCThread::Kill: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x", Hex32(m_Thread), rc);
            ok = false;
        }
    } else if (m_Shared) {
        // A detached thread's id is valid only while the thread exists.  The
        // thread marks its end under this mutex before it exits, so holding
        // it keeps an unfinished thread in existence until the cancel
        // request has been made.
        std::lock_guard<std::mutex> lock(m_Shared->mutex);
        if (!m_Shared->finished) {
            DBG_PRINT(2, "\nCThread::Kill: Killing a non-joinable thread 0x%08X", Hex32(m_Thread));
            int rc = pthread_cancel(m_Thread);
            if (rc == 0) {
                DBG_PRINT(2, "\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", Hex32(m_Thread));
            } else {
                DBG_PRINT(1, "\nCThread::Kill: unable to cancel a non-joinable thread 0x%08X (err = 0x%08x)", Hex32(m_Thread), rc);
                ok = false;
            }
        }
    }
    m_Thread = 0;
    m_Alive = false;
    return ok;
}
