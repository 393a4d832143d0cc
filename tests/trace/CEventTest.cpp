#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "trace/CEvent.h"

using namespace std::chrono_literals;

namespace {

// Polls `done` until it holds or the generous upper bound runs out.
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

// Threads that each wait once (without limit) on an event and count the
// ones that came back with 0.
class Waiters {
public:
    Waiters(CEvent& ev, int n)
    {
        for (int i = 0; i < n; ++i)
            m_Threads.emplace_back([this, &ev] {
                int rc = ev.Wait(TR_INFINITE);
                if (rc == TR_WAIT_OBJECT_0)
                    ++m_Released;
                else
                    ++m_Failed;
            });
    }
    ~Waiters() { Join(); }
    void Join()
    {
        for (auto& t : m_Threads)
            if (t.joinable())
                t.join();
    }
    int Released() const { return m_Released.load(); }
    int Failed() const { return m_Failed.load(); }

private:
    std::vector<std::thread> m_Threads;
    std::atomic<int> m_Released{0};
    std::atomic<int> m_Failed{0};
};

bool AllWaiting(const CEvent& ev, unsigned n)
{
    return WaitUntil([&] { return ev.GetWaiterCount() == n; });
}

} // namespace

TEST(CEvent, WaitZeroOnAnUnsignalledEventTimesOutAtOnce)
{
    CEvent ev(false, false);
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
    EXPECT_EQ(ev.GetWaiterCount(), 0u);
    CEvent manual(false, true);
    EXPECT_EQ(manual.Wait(0), TR_WAIT_TIMEOUT);
}

TEST(CEvent, AutoResetWaitConsumesTheSignal)
{
    CEvent ev(true, false);
    EXPECT_TRUE(ev.IsSet());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(ev.IsSet());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
    EXPECT_TRUE(ev.Set());
    EXPECT_EQ(ev.Wait(TR_INFINITE), TR_WAIT_OBJECT_0);
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
}

TEST(CEvent, ManualResetStaysSignalledUntilReset)
{
    CEvent ev(false, true);
    EXPECT_TRUE(ev.Set());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_EQ(ev.Wait(10), TR_WAIT_OBJECT_0);
    EXPECT_TRUE(ev.IsSet());
    EXPECT_TRUE(ev.Reset());
    EXPECT_FALSE(ev.IsSet());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
}

TEST(CEvent, FiniteTimeoutWaitsItsTimeThenTimesOut)
{
    CEvent ev;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ev.Wait(60), TR_WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);  // it did wait
    // 999 ms pushes the nanoseconds past a whole second: the deadline must
    // be carried, or the wait fails at once instead of timing out.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(ev.Wait(999), TR_WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(ev.GetWaiterCount(), 0u);
}

TEST(CEvent, FiniteWaitReturnsWhenSignalled)
{
    CEvent ev;
    std::atomic<int> rc{-2};
    std::thread t([&] { rc = ev.Wait(60000); });
    ASSERT_TRUE(AllWaiting(ev, 1));
    ev.Set();
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(ev.IsSet());  // auto reset: taken by the waiter
}

TEST(CEvent, AutoResetSetReleasesExactlyOneWaiter)
{
    CEvent ev(false, false);
    Waiters w(ev, 4);
    ASSERT_TRUE(AllWaiting(ev, 4));
    for (int n = 1; n <= 4; ++n) {
        EXPECT_TRUE(ev.Set());
        ASSERT_TRUE(WaitUntil([&] { return w.Released() >= n; })) << n;
        // Give a wrongly released second thread time to show up.
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(w.Released(), n);
        EXPECT_EQ(ev.GetWaiterCount(), static_cast<unsigned>(4 - n));
        EXPECT_FALSE(ev.IsSet());
    }
    w.Join();
    EXPECT_EQ(w.Failed(), 0);
}

TEST(CEvent, ManualResetSetReleasesAllWaiters)
{
    CEvent ev(false, true);
    Waiters w(ev, 4);
    ASSERT_TRUE(AllWaiting(ev, 4));
    EXPECT_TRUE(ev.Set());
    w.Join();
    EXPECT_EQ(w.Released(), 4);
    EXPECT_TRUE(ev.IsSet());
}

TEST(CEvent, ManualResetWaitersReleasedBySetSurviveAnImmediateReset)
{
    for (int round = 0; round < 20; ++round) {
        CEvent ev(false, true);
        Waiters w(ev, 3);
        ASSERT_TRUE(AllWaiting(ev, 3));
        ev.Set();
        ev.Reset();
        w.Join();
        EXPECT_EQ(w.Released(), 3) << "round " << round;
        EXPECT_FALSE(ev.IsSet());
    }
}

TEST(CEvent, PulseOnManualResetReleasesCurrentWaitersAndStaysUnsignalled)
{
    CEvent ev(false, true);
    Waiters w(ev, 3);
    ASSERT_TRUE(AllWaiting(ev, 3));
    EXPECT_TRUE(ev.Pulse());
    EXPECT_FALSE(ev.IsSet());
    w.Join();
    EXPECT_EQ(w.Released(), 3);
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);  // later waiters are not released
}

TEST(CEvent, PulseOnAutoResetReleasesOneWaiter)
{
    CEvent ev(false, false);
    Waiters w(ev, 3);
    ASSERT_TRUE(AllWaiting(ev, 3));
    EXPECT_TRUE(ev.Pulse());
    ASSERT_TRUE(WaitUntil([&] { return w.Released() >= 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(w.Released(), 1);
    EXPECT_EQ(ev.GetWaiterCount(), 2u);
    EXPECT_FALSE(ev.IsSet());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
    ev.Pulse();
    ev.Pulse();
    w.Join();
    EXPECT_EQ(w.Released(), 3);
}

TEST(CEvent, PulseWithoutWaitersLeavesNothingBehind)
{
    CEvent ev(true, false);
    EXPECT_TRUE(ev.Pulse());
    EXPECT_FALSE(ev.IsSet());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_TIMEOUT);
    std::atomic<int> rc{-2};
    std::thread t([&] { rc = ev.Wait(50); });
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_TIMEOUT);
}

TEST(CEvent, CloseReleasesAnInfiniteWaitWithZero)
{
    CEvent ev(false, false);
    std::atomic<int> rc{-2};
    std::thread t([&] { rc = ev.Wait(TR_INFINITE); });
    ASSERT_TRUE(AllWaiting(ev, 1));
    EXPECT_TRUE(ev.Close());
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(ev.IsOpen());
}

TEST(CEvent, AClosedEventRefusesEverything)
{
    CEvent ev(false, true);
    EXPECT_TRUE(ev.IsOpen());
    EXPECT_TRUE(ev.Close());
    EXPECT_FALSE(ev.IsOpen());
    EXPECT_EQ(ev.Wait(0), TR_WAIT_FAILED);
    EXPECT_EQ(ev.Wait(TR_INFINITE), TR_WAIT_FAILED);
    EXPECT_FALSE(ev.Set());
    EXPECT_FALSE(ev.Pulse());
    EXPECT_FALSE(ev.Reset());
    EXPECT_FALSE(ev.IsSet());
    EXPECT_FALSE(ev.Create(false, false));
    EXPECT_FALSE(ev.Close());
    EXPECT_TRUE(ev.Open("anything"));  // no effect
}

TEST(CEvent, CreateChangesFlagsButNotWhileThreadsWait)
{
    CEvent ev(false, false);
    EXPECT_TRUE(ev.Create(false, false));  // same flags
    EXPECT_TRUE(ev.Create(true, true));
    EXPECT_EQ(ev.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_TRUE(ev.IsSet());  // now manual
    EXPECT_TRUE(ev.Create(false, false));
    EXPECT_FALSE(ev.IsSet());

    std::atomic<int> rc{-2};
    std::thread t([&] { rc = ev.Wait(TR_INFINITE); });
    ASSERT_TRUE(AllWaiting(ev, 1));
    EXPECT_FALSE(ev.Create(true, true));
    EXPECT_FALSE(ev.IsSet());  // nothing changed
    ev.Set();
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(ev.IsSet());  // still auto reset
}

TEST(CEvent, NamedEventsShareOneState)
{
    CEvent a(false, true, "CEventTest.shared");
    CEvent b(false, true, "CEventTest.shared");
    std::atomic<int> rc{-2};
    std::thread t([&] { rc = b.Wait(TR_INFINITE); });
    ASSERT_TRUE(AllWaiting(a, 1));
    EXPECT_TRUE(a.Set());
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_OBJECT_0);
    EXPECT_TRUE(b.IsSet());
    b.Reset();
    EXPECT_FALSE(a.IsSet());

    CEvent other(false, true, "CEventTest.other");
    a.Set();
    EXPECT_FALSE(other.IsSet());
    CEvent anon1(false, true), anon2(false, true);
    anon1.Set();
    EXPECT_FALSE(anon2.IsSet());
}

TEST(CEvent, NamedSharingKeepsTheFirstManualSetting)
{
    CEvent first(true, false, "CEventTest.mismatch");
    CEvent second(false, true, "CEventTest.mismatch");  // asks for manual: stays auto
    EXPECT_TRUE(second.IsSet());                         // nor is the state reset
    EXPECT_EQ(second.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(first.IsSet());  // consumed: auto reset
    EXPECT_EQ(first.Wait(0), TR_WAIT_TIMEOUT);
}

TEST(CEvent, LastReferenceRemovesTheName)
{
    {
        CEvent a(true, true, "CEventTest.fresh");
        CEvent b(false, false, "CEventTest.fresh");
        EXPECT_TRUE(b.IsSet());
    }
    CEvent c(false, false, "CEventTest.fresh");
    EXPECT_FALSE(c.IsSet());
    c.Set();
    EXPECT_EQ(c.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(c.IsSet());  // a fresh auto-reset state, not the old manual one
}

TEST(CEvent, NamedCreationFromManyThreadsYieldsOneState)
{
    std::vector<std::thread> threads;
    std::atomic<int> sawSet{0};
    CEvent keeper(false, true, "CEventTest.race");
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int j = 0; j < 200; ++j) {
                CEvent e(false, true, "CEventTest.race");
                if (j == 100 && e.Wait(TR_INFINITE) == TR_WAIT_OBJECT_0)
                    ++sawSet;
            }
        });
    ASSERT_TRUE(WaitUntil([&] { return keeper.GetWaiterCount() == 4; }));
    keeper.Set();
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(sawSet.load(), 4);
}

TEST(CEvent, CopiesAndAssignmentShareTheState)
{
    CEvent a(false, true);
    CEvent b(a);
    a.Set();
    EXPECT_TRUE(b.IsSet());

    CEvent c(false, false);
    c = a;
    EXPECT_TRUE(c.IsSet());
    c.Reset();
    EXPECT_FALSE(a.IsSet());
    c = c;  // self-assignment keeps the state
    c.Set();
    EXPECT_TRUE(a.IsSet());

    {
        CEvent d(false, true, "CEventTest.assigned");
        CEvent e(true, false);
        e = d;  // e's old anonymous state is released, d's shared
        EXPECT_FALSE(e.IsSet());
        d.Set();
        EXPECT_TRUE(e.IsSet());
    }
    CEvent f(false, false, "CEventTest.assigned");  // both references gone: fresh
    EXPECT_FALSE(f.IsSet());
}

TEST(CEvent, ACopyOutlivesTheOriginal)
{
    auto* original = new CEvent(false, false, "CEventTest.outlive");
    CEvent copy(*original);
    delete original;
    EXPECT_TRUE(copy.Set());
    CEvent again(false, true, "CEventTest.outlive");  // the copy still holds the name
    EXPECT_TRUE(again.IsSet());
    EXPECT_EQ(again.Wait(0), TR_WAIT_OBJECT_0);
    EXPECT_FALSE(copy.IsSet());  // auto reset of the shared state
}

TEST(CEvent, PingPongBetweenThreads)
{
    CEvent ping(false, false), pong(false, false);
    constexpr int kRounds = 300;
    std::atomic<int> errors{0};
    std::thread t([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (ping.Wait(TR_INFINITE) != TR_WAIT_OBJECT_0)
                ++errors;
            pong.Set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ping.Set();
        ASSERT_EQ(pong.Wait(30000), TR_WAIT_OBJECT_0) << i;
    }
    t.join();
    EXPECT_EQ(errors.load(), 0);
}
