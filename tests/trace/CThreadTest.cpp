// Threads: start, waits with and without limit, detached threads, Kill of
// joinable and blocked threads, names and scheduling (also run under TSan).
#include "trace/CEvent.h"
#include "trace/CThread.h"

#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <sched.h>
#include <string>

using testsupport::WaitFor;

namespace {

// Waits for its event, then returns a marker.
struct Gate {
    explicit Gate(bool open = false) : go(open, true) {}
    CEvent go;
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
};

void* WaitAtGate(void* arg)
{
    auto* g = static_cast<Gate*>(arg);
    g->started = true;
    g->go.Wait(TR_INFINITE);
    g->finished = true;
    return nullptr;
}

// Blocks in an infinite event wait until cancelled; the destructor of a
// local object marks that the cancellation unwound the thread.
struct Blocked {
    CEvent never{false, false};
    std::atomic<bool> unwound{false};
};

void* BlockForever(void* arg)
{
    auto* b = static_cast<Blocked*>(arg);
    struct Mark {
        std::atomic<bool>& flag;
        ~Mark() { flag = true; }
    } mark{b->unwound};
    b->never.Wait(TR_INFINITE);
    return nullptr;
}

struct Attributes {
    char name[32] = {};
    int policy = -1;
};

void* ReadOwnAttributes(void* arg)
{
    auto* p = static_cast<Attributes*>(arg);
    pthread_getname_np(pthread_self(), p->name, sizeof p->name);
    sched_param param{};
    pthread_getschedparam(pthread_self(), &p->policy, &param);
    return nullptr;
}

void* CountUp(void* arg)
{
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
    return nullptr;
}

} // namespace

TEST(CThread, WaitsWithAndWithoutLimit)
{
    CThread t;
    EXPECT_TRUE(t.WaitForTermination());  // nothing to wait for
    EXPECT_TRUE(t.WaitForTermination(10));
    EXPECT_FALSE(t.Kill());
    Gate g;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    ASSERT_TRUE(WaitFor([&] { return g.started.load(); }));
    EXPECT_FALSE(t.WaitForTermination(50));  // gives up, still held
    EXPECT_TRUE(t.IsAlive());
    EXPECT_NE(t.GetId(), 0u);
    g.go.Set();
    ASSERT_TRUE(WaitFor([&] { return !t.IsAlive(); }));
    EXPECT_TRUE(t.WaitForTermination(60000));  // a finished thread is joined
    EXPECT_TRUE(g.finished);
    EXPECT_EQ(t.GetId(), 0u);
    EXPECT_TRUE(t.WaitForTermination());
}

TEST(CThread, DetachedThreadCannotBeWaitedFor)
{
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g, 0, false, 0, 0, false));
    EXPECT_FALSE(t.WaitForTermination());
    EXPECT_FALSE(t.WaitForTermination(10));
    g.go.Set();
    ASSERT_TRUE(WaitFor([&] { return !t.IsAlive(); }));
    EXPECT_TRUE(g.finished);
    EXPECT_TRUE(t.Kill());  // of a finished detached thread: harmless
    EXPECT_EQ(t.GetId(), 0u);
}

TEST(CThread, KillJoinsAJoinableThreadAndStartAgainReplacesIt)
{
    Gate g(true), second;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    EXPECT_TRUE(t.Kill());  // told to stop already: Kill only joins
    EXPECT_TRUE(g.finished);
    EXPECT_EQ(t.GetId(), 0u);
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    ASSERT_TRUE(t.Start(WaitAtGate, &second));
    ASSERT_TRUE(WaitFor([&] { return second.started.load(); }));
    EXPECT_TRUE(t.IsAlive());
    second.go.Set();
    EXPECT_TRUE(t.WaitForTermination());
    EXPECT_TRUE(second.finished);
}

TEST(CThread, KillCancelsADetachedBlockedThread)
{
    Blocked b;
    CThread t;
    ASSERT_TRUE(t.Start(BlockForever, &b, 0, false, 0, 0, false));
    ASSERT_TRUE(WaitFor([&] { return b.never.GetWaiterCount() == 1; }));
    EXPECT_TRUE(t.Kill());
    EXPECT_EQ(t.GetId(), 0u);
    ASSERT_TRUE(WaitFor([&] { return b.unwound.load(); }));
    // The cancelled wait gave back the event: no waiter left, mutex free.
    EXPECT_EQ(b.never.GetWaiterCount(), 0u);
    EXPECT_TRUE(b.never.Set());
    EXPECT_EQ(b.never.Wait(0), TR_WAIT_OBJECT_0);
}

TEST(CThread, NameAndScheduling)
{
    Attributes named, rt;
    CThread t;
    ASSERT_TRUE(t.Start(ReadOwnAttributes, &named, 0, true, 0x10000, 0, true, "WatchPartitionsAndMore"));
    ASSERT_TRUE(t.WaitForTermination());
    EXPECT_STREQ(named.name, "WatchPartitions");  // cut to what the system takes
    EXPECT_EQ(named.policy, SCHED_OTHER);
    // A priority selects real-time round robin where the process may use
    // it; without the right the thread still runs, inheriting.
    ASSERT_TRUE(t.Start(ReadOwnAttributes, &rt, 1));
    ASSERT_TRUE(t.WaitForTermination());
    EXPECT_TRUE(rt.policy == SCHED_RR || rt.policy == SCHED_OTHER) << rt.policy;
    EXPECT_FALSE(t.Start(ReadOwnAttributes, &rt, 1000));
    EXPECT_FALSE(t.Start(nullptr, nullptr));
    EXPECT_EQ(t.GetId(), 0u);
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

TEST(CThread, StartedAndJoinedInRounds)
{
    std::atomic<int> ran{0};
    constexpr int kRounds = 200;
    for (int i = 0; i < kRounds; ++i) {
        CThread th;
        ASSERT_TRUE(th.Start(CountUp, &ran, 0, false, 0, 0, true));
        ASSERT_TRUE(th.WaitForTermination(TR_INFINITE));
    }
    EXPECT_EQ(kRounds, ran.load());
}
