// Threads: waits, detached threads, Kill, names and scheduling (also run under TSan).
#include "trace/CEvent.h"
#include "trace/CThread.h"

#include "support/TraceEnv.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

using testsupport::WaitFor;

namespace {

// A routine's arguments: it marks its start, waits at the gate (or spins), marks its end.
struct Gate {
    explicit Gate(bool open = false) : go(open, true) {}
    CEvent go;
    std::atomic<bool> started{false}, finished{false};
};

void* WaitAtGate(void* arg)
{
    auto* g = static_cast<Gate*>(arg);
    g->started = true;
    g->go.Wait(TR_INFINITE);
    g->finished = true;
    return nullptr;
}

// Runs until cancelled at pthread_testcancel() (TSan cannot follow one in a blocking call).
void* SpinUntilCancelled(void* arg)
{
    auto* g = static_cast<Gate*>(arg);
    struct Mark {
        std::atomic<bool>& flag;
        ~Mark() { flag = true; }
    } mark{g->finished};
    g->started = true;
    for (;;) {
        pthread_testcancel();
        sched_yield();
    }
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

} // namespace

// A bounded wait for the routine's end leaves the thread held; a later wait collects it.
TEST(CThread, BoundedExitWaitKeepsTheThreadForALaterWait)
{
    CThread t;
    EXPECT_TRUE(t.WaitForTermination());  // nothing to wait for
    EXPECT_TRUE(t.WaitForExit(10));
    EXPECT_FALSE(t.Kill());
    Gate g;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    ASSERT_TRUE(WaitFor([&] { return g.started.load(); }));
    EXPECT_FALSE(t.WaitForExit(50));  // held at the gate: gives up
    EXPECT_TRUE(t.IsAlive() && t.GetId() != 0);
    g.go.Set();
    EXPECT_TRUE(t.WaitForExit(TR_INFINITE));
    EXPECT_NE(t.GetId(), 0u);  // ended, not yet collected
    EXPECT_TRUE(t.WaitForTermination() && g.finished && t.GetId() == 0);
}

// A finite time-out is not honoured: traced as a warning, the wait goes on to the thread's end
// (a gate opened only after a longer bounded wait gave up).
TEST(CThread, FiniteTerminationWaitWarnsAndJoinsLikeAnInfiniteOne)
{
    testsupport::GlobalTrace trace;
    Gate g;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g));
    char warning[128];
    snprintf(warning, sizeof warning,
             "CThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X termination with timeout",
             static_cast<unsigned>(t.GetId()));
    std::thread opener([&] {
        EXPECT_FALSE(t.WaitForExit(20));
        g.go.Set();
    });
    EXPECT_TRUE(t.WaitForTermination(1));
    opener.join();
    EXPECT_TRUE(g.finished && t.GetId() == 0);
    EXPECT_TRUE(trace.Has(warning));
}

// A detached thread cannot be waited for; Kill cancels (unwinds) a running one, ignores an ended one.
TEST(CThread, DetachedThreadsAreCancelledNotWaitedFor)
{
    Gate g, b;
    CThread t;
    ASSERT_TRUE(t.Start(WaitAtGate, &g, 0, false, 0, 0, false));
    EXPECT_FALSE(t.WaitForTermination());
    g.go.Set();
    ASSERT_TRUE(WaitFor([&] { return !t.IsAlive(); }));
    EXPECT_TRUE(g.finished && t.Kill() && t.GetId() == 0);
    ASSERT_TRUE(t.Start(SpinUntilCancelled, &b, 0, false, 0, 0, false));
    ASSERT_TRUE(WaitFor([&] { return b.started.load(); }));
    EXPECT_TRUE(t.Kill() && t.GetId() == 0);
    EXPECT_TRUE(WaitFor([&] { return b.finished.load(); }));
}

// Kill of a routine told to stop only joins it; a second Start holds the new thread, which the
// destructor waits for.
TEST(CThread, KillJoinsAJoinableThreadStartAgainReplacesItAndTheDestructorJoins)
{
    Gate g(true), second;
    {
        CThread t;
        ASSERT_TRUE(t.Start(WaitAtGate, &g));
        EXPECT_TRUE(t.Kill() && g.finished && t.GetId() == 0);
        ASSERT_TRUE(t.Start(WaitAtGate, &g));
        ASSERT_TRUE(t.Start(WaitAtGate, &second));
        ASSERT_TRUE(WaitFor([&] { return second.started.load(); }));
        EXPECT_TRUE(t.IsAlive());
        second.go.Set();
    }
    EXPECT_TRUE(second.finished);
}

TEST(CThread, NameAndScheduling)
{
    Attributes named, rt;
    CThread t;
    ASSERT_TRUE(t.Start(ReadOwnAttributes, &named, 0, true, 0x10000, 0, true, "WatchPartitionsAndMore"));
    ASSERT_TRUE(t.WaitForTermination());
    EXPECT_STREQ(named.name, "WatchPartitions");  // cut to what the system takes
    EXPECT_EQ(named.policy, SCHED_OTHER);
    if (t.Start(ReadOwnAttributes, &rt, 1)) {  // where the process may use real-time round robin
        ASSERT_TRUE(t.WaitForTermination());
        EXPECT_EQ(rt.policy, SCHED_RR);
    }
    EXPECT_FALSE(t.Start(ReadOwnAttributes, &rt, 1000) || t.Start(nullptr, nullptr) || t.GetId());
}

// A priority the process may not use fails the start (traced) instead of running at ordinary
// priority; in a child without the right (real-time limit 0, for root the user nobody).
TEST(CThread, ForbiddenPriorityFailsTheStart)
{
    testsupport::GlobalTrace trace;
    enum { kFailed, kStarted, kAllowed, kNoDrop };
    int status = testsupport::TraceEnv::InChild([] {
        struct rlimit none {};
        if (setrlimit(RLIMIT_RTPRIO, &none) != 0 || (getuid() == 0 && setuid(65534) != 0))
            return static_cast<int>(kNoDrop);
        sched_param param{};  // is it forbidden at all (the child itself asks)?
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_RR, &param) == 0)
            return static_cast<int>(kAllowed);
        Gate open(true);
        CThread t;
        bool started = t.Start(WaitAtGate, &open, 1);
        t.WaitForTermination();
        return static_cast<int>(started ? kStarted : kFailed);
    });
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kAllowed || WEXITSTATUS(status) == kNoDrop)
        GTEST_SKIP() << "the priority is not forbidden here";
    EXPECT_EQ(WEXITSTATUS(status), kFailed);
    EXPECT_TRUE(trace.Has("pthread_create failed: " + std::to_string(EPERM)));
}
