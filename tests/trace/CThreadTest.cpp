#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

#include "trace/CEvent.h"
#include "trace/CThread.h"

using namespace std::chrono_literals;

namespace {

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s)
{
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

void* ReturnArgument(void* arg)
{
    return arg;
}

// Waits for its event, then returns a marker.
struct Gate {
    CEvent go{false, true};
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
};

void* WaitAtGate(void* arg)
{
    auto* g = static_cast<Gate*>(arg);
    g->started = true;
    g->go.Wait(TR_INFINITE);
    g->finished = true;
    return reinterpret_cast<void*>(0x5A);
}

// Blocks in an infinite event wait until cancelled; the destructor of a
// local object marks that the cancellation unwound the thread.
struct Blocked {
    CEvent never{false, false};
    std::atomic<bool> waiting{false};
    std::atomic<bool> unwound{false};
};

void* BlockForever(void* arg)
{
    auto* b = static_cast<Blocked*>(arg);
    struct Mark {
        std::atomic<bool>& flag;
        ~Mark() { flag = true; }
    } mark{b->unwound};
    b->waiting = true;
    b->never.Wait(TR_INFINITE);
    return nullptr;
}

struct NameProbe {
    char name[32] = {};
    int policy = -1;
};

void* ReadOwnAttributes(void* arg)
{
    auto* p = static_cast<NameProbe*>(arg);
    pthread_getname_np(pthread_self(), p->name, sizeof p->name);
    sched_param param{};
    pthread_getschedparam(pthread_self(), &p->policy, &param);
    return nullptr;
}

} // namespace

TEST(CThread, StartAndWaitForTerminationWithReturnValue)
{
    CThread t;
    EXPECT_FALSE(t.IsAlive());
    EXPECT_EQ(t.GetId(), 0u);
    int marker = 0;
    ASSERT_TRUE(t.Start(ReturnArgument, &marker));
    EXPECT_NE(t.GetId(), 0u);
    EXPECT_TRUE(t.WaitForTermination());
    EXPECT_EQ(t.GetId(), 0u);
    EXPECT_FALSE(t.IsAlive());
    EXPECT_TRUE(t.WaitForTermination());  // nothing left to wait for
}

TEST(CThread, IsAliveWhileTheRoutineRuns)
{
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    ASSERT_TRUE(WaitUntil([&] { return g.started.load(); }));
    EXPECT_TRUE(t.IsAlive());
    g.go.Set();
    ASSERT_TRUE(WaitUntil([&] { return !t.IsAlive(); }));
    EXPECT_TRUE(g.finished);
    EXPECT_TRUE(t.WaitForTermination());
}

TEST(CThread, WaitForTerminationWithoutThreadSucceeds)
{
    CThread t;
    EXPECT_TRUE(t.WaitForTermination());
    EXPECT_TRUE(t.WaitForTermination(10));
    EXPECT_FALSE(t.Kill());
}

TEST(CThread, FiniteWaitGivesUpAndALaterWaitSucceeds)
{
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    EXPECT_FALSE(t.WaitForTermination(50));
    EXPECT_TRUE(t.IsAlive());
    EXPECT_NE(t.GetId(), 0u);  // still held
    g.go.Set();
    EXPECT_TRUE(t.WaitForTermination(TR_INFINITE));
    EXPECT_TRUE(g.finished);
    EXPECT_EQ(t.GetId(), 0u);
}

TEST(CThread, FiniteWaitOnAFinishingThreadJoinsIt)
{
    Gate g;
    g.go.Set();
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    EXPECT_TRUE(t.WaitForTermination(60000));
    EXPECT_TRUE(g.finished);
    EXPECT_EQ(t.GetId(), 0u);
}

TEST(CThread, DetachedThreadCannotBeWaitedFor)
{
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g, 0, false, 0, 0, false));
    EXPECT_FALSE(t.WaitForTermination());
    EXPECT_FALSE(t.WaitForTermination(10));
    g.go.Set();
    ASSERT_TRUE(WaitUntil([&] { return !t.IsAlive(); }));
    EXPECT_TRUE(g.finished);
}

TEST(CThread, KillJoinsAJoinableThread)
{
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    ASSERT_TRUE(WaitUntil([&] { return g.started.load(); }));
    g.go.Set();  // told to stop: Kill only joins
    EXPECT_TRUE(t.Kill());
    EXPECT_TRUE(g.finished);  // joined: the routine has returned
    EXPECT_EQ(t.GetId(), 0u);
    EXPECT_FALSE(t.IsAlive());
}

TEST(CThread, KillCancelsADetachedBlockedThread)
{
    Blocked b;
    CThread t;
    ASSERT_TRUE(t.Start(BlockForever, &b, 0, false, 0, 0, false));
    ASSERT_TRUE(WaitUntil([&] { return b.never.GetWaiterCount() == 1; }));
    EXPECT_TRUE(t.Kill());
    EXPECT_EQ(t.GetId(), 0u);
    ASSERT_TRUE(WaitUntil([&] { return b.unwound.load(); }));
    // The cancelled wait gave back the event: no waiter left, mutex free.
    EXPECT_EQ(b.never.GetWaiterCount(), 0u);
    EXPECT_TRUE(b.never.Set());
    EXPECT_EQ(b.never.Wait(0), TR_WAIT_OBJECT_0);
}

TEST(CThread, KillOfAFinishedDetachedThreadDoesNothingHarmful)
{
    Gate g;
    g.go.Set();
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g, 0, false, 0, 0, false));
    ASSERT_TRUE(WaitUntil([&] { return !t.IsAlive(); }));
    std::this_thread::sleep_for(20ms);  // let the thread exit completely
    EXPECT_TRUE(t.Kill());
    EXPECT_EQ(t.GetId(), 0u);
}

TEST(CThread, StartAgainReplacesTheOldThread)
{
    Gate first;
    first.go.Set();
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &first));
    ASSERT_TRUE(WaitUntil([&] { return first.finished.load(); }));
    Gate second;
    ASSERT_TRUE(t.Start(WaitAtGate, &second));
    ASSERT_TRUE(WaitUntil([&] { return second.started.load(); }));
    EXPECT_TRUE(t.IsAlive());
    second.go.Set();
    EXPECT_TRUE(t.WaitForTermination());
    EXPECT_TRUE(second.finished);
}

TEST(CThread, NamesTheThreadAndPriorityZeroKeepsNormalScheduling)
{
    NameProbe p;
    CThread t;
    ASSERT_TRUE(t.Start(ReadOwnAttributes, &p, 0, true, 0x10000, 0, true, "WatchPartitionsAndMore"));
    ASSERT_TRUE(t.WaitForTermination());
    EXPECT_STREQ(p.name, std::string("WatchPartitionsAndMore").substr(0, 15).c_str());
    EXPECT_EQ(p.policy, SCHED_OTHER);
}

TEST(CThread, PriorityRunsTheThreadEvenWithoutRealTimeRights)
{
    NameProbe p;
    CThread t;
    ASSERT_TRUE(t.Start(ReadOwnAttributes, &p, 1));
    ASSERT_TRUE(t.WaitForTermination());
    // Real-time round robin where the process may use it, else inherited.
    EXPECT_TRUE(p.policy == SCHED_RR || p.policy == SCHED_OTHER) << p.policy;
}

TEST(CThread, InvalidPriorityOrRoutineFails)
{
    CThread t;
    EXPECT_FALSE(t.Start(ReturnArgument, nullptr, 1000));
    EXPECT_EQ(t.GetId(), 0u);
    EXPECT_FALSE(t.Start(nullptr, nullptr));
    EXPECT_EQ(t.GetId(), 0u);
    EXPECT_TRUE(t.WaitForTermination());
}

TEST(CThread, DestructorJoinsAJoinableThread)
{
    Gate g;
    {
        CThread t;
        ASSERT_TRUE(t.Start(WaitAtGate, &g));
        g.go.Set();
    }
    EXPECT_TRUE(g.finished);
}
