// Events: signalling rules, named sharing, hand-offs between threads (also run under TSan).
#include "trace/CEvent.h"

#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using testsupport::WaitFor;

namespace {

// Threads that each wait once on an event, counted by the outcome.
class Waiters {
public:
    Waiters(CEvent& ev, int n, unsigned timeout = TR_INFINITE)
    {
        for (int i = 0; i < n; ++i)
            m_Threads.emplace_back([this, &ev, timeout] { ++(ev.Wait(timeout) == TR_WAIT_OBJECT_0 ? m_Released : m_Failed); });
    }
    void Join() { m_Threads.clear(); }
    std::atomic<int> m_Released{0}, m_Failed{0};

private:
    std::vector<std::jthread> m_Threads;  // joined when destroyed, before the counters
};

bool AllWaiting(const CEvent& ev, unsigned n)
{
    return WaitFor([&] { return ev.GetWaiterCount() == n; });
}

} // namespace

TEST(CEvent, SignalStateWithoutWaiters)
{
    CEvent autoEv(true, false), manual(false, true), pulsed(true, false);
    EXPECT_EQ(autoEv.Wait(0), TR_WAIT_OBJECT_0);  // consumes the signal
    EXPECT_EQ(autoEv.Wait(0), TR_WAIT_TIMEOUT);
    EXPECT_EQ(manual.Wait(0), TR_WAIT_TIMEOUT);
    EXPECT_TRUE(manual.Set() && manual.Wait(10) == TR_WAIT_OBJECT_0 && manual.Wait(0) == TR_WAIT_OBJECT_0);
    EXPECT_TRUE(manual.Reset() && manual.Wait(0) == TR_WAIT_TIMEOUT);  // stayed until reset
    EXPECT_TRUE(pulsed.Pulse() && !pulsed.IsSet());  // a pulse without waiters leaves nothing behind
    // 999 ms pushes the deadline's nanoseconds past a whole second: not
    // carried over, the wait would fail at once instead of timing out.
    EXPECT_TRUE(pulsed.Wait(999) == TR_WAIT_TIMEOUT && pulsed.GetWaiterCount() == 0u);
}

TEST(CEvent, SetAndPulseReleaseBlockedWaiters)
{
    enum Op { kSet, kPulse, kSetReset };
    const struct {
        const char* what;
        bool manual;
        Op op;
        int releasedEach;  // by one operation
        bool setAfter;
        unsigned timeout;
    } cases[] = {
        {"auto-reset Set", false, kSet, 1, false, TR_INFINITE},
        {"auto-reset Set, finite waits", false, kSet, 1, false, 600000},
        {"manual-reset Set", true, kSet, 3, true, TR_INFINITE},
        {"manual-reset Set, Reset at once", true, kSetReset, 3, false, TR_INFINITE},
        {"manual-reset Pulse", true, kPulse, 3, false, TR_INFINITE},
        {"auto-reset Pulse", false, kPulse, 1, false, TR_INFINITE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CEvent ev(false, c.manual);
        Waiters w(ev, 3, c.timeout);
        ASSERT_TRUE(AllWaiting(ev, 3));
        for (int released = c.releasedEach; released <= 3; released += c.releasedEach) {
            EXPECT_TRUE(c.op == kPulse ? ev.Pulse() : ev.Set());
            if (c.op == kSetReset)
                ev.Reset();
            ASSERT_TRUE(WaitFor([&] { return w.m_Released.load() >= released; }));
            ASSERT_TRUE(AllWaiting(ev, 3u - released));  // no more than due
            EXPECT_EQ(w.m_Released.load(), released);
            EXPECT_EQ(ev.IsSet(), c.setAfter);
        }
        w.Join();
        EXPECT_EQ(w.m_Failed.load(), 0);
        EXPECT_EQ(ev.Wait(0), c.setAfter ? TR_WAIT_OBJECT_0 : TR_WAIT_TIMEOUT);
    }
}

// Create changes the flags, not while a thread waits; Close releases it and refuses all after.
TEST(CEvent, CreateAndCloseWithAWaiter)
{
    CEvent ev(false, false);
    EXPECT_TRUE(ev.Create(true, true) && ev.Wait(0) == TR_WAIT_OBJECT_0 && ev.IsSet());  // now manual
    EXPECT_TRUE(ev.Create(false, false) && !ev.IsSet());
    Waiters w(ev, 1);
    ASSERT_TRUE(AllWaiting(ev, 1));
    EXPECT_FALSE(ev.Create(true, true) || ev.IsSet());  // nothing changed
    EXPECT_TRUE(ev.Close());
    w.Join();
    EXPECT_TRUE(w.m_Released.load() == 1 && !ev.IsOpen());
    EXPECT_EQ(ev.Wait(TR_INFINITE), TR_WAIT_FAILED);
    EXPECT_FALSE(ev.Set() || ev.Pulse() || ev.Reset() || ev.IsSet());
    EXPECT_FALSE(ev.Create(false, false) || ev.Close());
    EXPECT_TRUE(ev.Open("anything"));  // no effect
}

// Names and copies share one state until the last reference goes, whatever flags a second asks.
TEST(CEvent, NamesAndCopiesShareOneStateUntilTheLastReferenceGoes)
{
    {
        CEvent a(false, true, "CEventTest.shared"), b(false, true, "CEventTest.shared");
        CEvent other(false, true, "CEventTest.other"), copy(a), assigned(true, false);
        assigned = a;
        assigned = assigned;  // self-assignment keeps the state
        Waiters w(b, 1);
        ASSERT_TRUE(AllWaiting(a, 1));
        EXPECT_TRUE(a.Set());
        w.Join();
        EXPECT_TRUE(w.m_Released.load() == 1 && copy.IsSet() && assigned.IsSet() && !other.IsSet());
        b.Reset();
        EXPECT_FALSE(a.IsSet() || copy.IsSet());
        CEvent first(true, false, "CEventTest.mismatch"), second(false, true, "CEventTest.mismatch");
        EXPECT_TRUE(second.Wait(0) == TR_WAIT_OBJECT_0 && !first.IsSet());  // consumed: auto reset
    }
    CEvent fresh(false, false, "CEventTest.shared");
    EXPECT_FALSE(fresh.IsSet());
    fresh.Set();  // a fresh auto-reset state, not the old manual one
    EXPECT_TRUE(fresh.Wait(0) == TR_WAIT_OBJECT_0 && !fresh.IsSet());
    auto* original = new CEvent(false, false, "CEventTest.outlive");
    CEvent copy(*original);
    delete original;
    EXPECT_TRUE(copy.Set());
    CEvent again(false, true, "CEventTest.outlive");  // the copy still holds the name
    EXPECT_TRUE(again.Wait(0) == TR_WAIT_OBJECT_0 && !copy.IsSet());  // auto reset of the shared state
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
    ASSERT_TRUE(AllWaiting(keeper, 4));
    keeper.Set();
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(sawSet.load(), 4);
}

// Ping-pong: every Set wakes exactly one waiter, so the counter moves strictly in turn.
TEST(CEvent, AutoResetHandsOverEachSetToExactlyOneWaiter)
{
    CEvent ping(false, false), pong(false, false);
    constexpr int kRounds = 2000;
    int shared = 0;  // guarded by the hand-over itself
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(TR_WAIT_OBJECT_0, ping.Wait(TR_INFINITE));
            ++shared;
            pong.Set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ping.Set();
        ASSERT_EQ(TR_WAIT_OBJECT_0, pong.Wait(TR_INFINITE));
        ASSERT_EQ(i + 1, shared);
    }
    other.join();
}
