// Semaphores: counts, named sharing, releases racing with waits (also run under TSan).
#include "trace/CSemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

namespace {

// How many times Wait(0) succeeds before it times out.
int Drain(CSemaphore& s)
{
    int taken = 0;
    while (s.Wait(0) == TR_WAIT_OBJECT_0)
        ++taken;
    return taken;
}

} // namespace

// Without a semaphore everything fails; the initial count is capped at the
// maximum, releases are not, and finite waits never block.
TEST(CSemaphore, CountsAndFailures)
{
    CSemaphore s, named;
    EXPECT_TRUE(named.Create(1, 1, "CSemaphoreTest.unregistered"));  // no such name: none
    for (CSemaphore* p : {&s, &named}) {
        EXPECT_FALSE(p->HasSemaphore());
        EXPECT_EQ(p->Wait(0), TR_WAIT_FAILED);
        EXPECT_EQ(p->Wait(TR_INFINITE), TR_WAIT_FAILED);
        EXPECT_FALSE(p->Release(1) || p->Delete());
    }
    const struct {
        long initial, maximum;
        int available;
    } cases[] = {{2, 5, 2}, {7, 3, 3}, {-4, 3, 0}, {1, INT_MAX, 1}, {0, LONG_MAX, 0}};
    for (const auto& c : cases) {
        ASSERT_TRUE(s.Create(c.initial, c.maximum)) << c.initial << "/" << c.maximum;
        EXPECT_EQ(Drain(s), c.available) << c.initial << "/" << c.maximum;
    }
    ASSERT_TRUE(s.Create(0, 1));
    EXPECT_FALSE(s.Release(0) || s.Release(-1));
    EXPECT_EQ(s.Wait(5000), TR_WAIT_FAILED);  // one attempt, no waiting
    EXPECT_TRUE(s.Release(3) && s.Wait(5000) == TR_WAIT_OBJECT_0);
    EXPECT_EQ(Drain(s), 2);
    std::atomic<int> rc{-2};
    std::thread t([&] { rc = s.Wait(TR_INFINITE); });
    EXPECT_TRUE(s.Release(1));
    t.join();
    EXPECT_EQ(rc.load(), TR_WAIT_OBJECT_0);
    EXPECT_EQ(s.Wait(0), TR_WAIT_TIMEOUT);
}

TEST(CSemaphore, NamedCreateSharesARegisteredSemaphore)
{
    CSemaphore owner;
    ASSERT_TRUE(owner.Create(0, 5));
    ASSERT_TRUE(owner.Register("CSemaphoreTest.shared"));
    EXPECT_FALSE(owner.Register("CSemaphoreTest.second-name"));  // one name a semaphore
    CSemaphore other, taken;
    ASSERT_TRUE(other.Create(3, 3));
    ASSERT_TRUE(other.Create(0, 0, "CSemaphoreTest.shared"));  // replaces its own
    ASSERT_TRUE(other.Create(0, 0, "CSemaphoreTest.shared"));  // already shared: unchanged
    EXPECT_TRUE(owner.Release(1) && other.Wait(0) == TR_WAIT_OBJECT_0 && owner.Wait(0) == TR_WAIT_TIMEOUT);
    ASSERT_TRUE(taken.Create(0, 1));
    EXPECT_FALSE(taken.Register("CSemaphoreTest.shared"));  // name in use

    // Dropping one reference leaves the semaphore to the other.
    EXPECT_TRUE(owner.Delete() && !owner.HasSemaphore());
    EXPECT_TRUE(other.Release(1) && other.Wait(0) == TR_WAIT_OBJECT_0);
    CSemaphore third;
    ASSERT_TRUE(third.Create(0, 0, "CSemaphoreTest.shared"));
    ASSERT_TRUE(third.Create(1, 1));  // its own again: the other keeps the shared one
    other.Release(1);
    EXPECT_EQ(Drain(third), 1);
    EXPECT_EQ(Drain(other), 1);
    EXPECT_TRUE(other.Delete());  // the last reference: destroyed, name gone
    CSemaphore late;
    EXPECT_TRUE(late.Create(0, 0, "CSemaphoreTest.shared") && !late.HasSemaphore());
}

TEST(CSemaphore, CountsEveryReleaseOnceUnderContention)
{
    CSemaphore sem;
    ASSERT_TRUE(sem.Create(0, 100000));
    constexpr int kProducers = 4, kPerProducer = 5000;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&] {
            while (taken.fetch_add(1) < kProducers * kPerProducer)
                ASSERT_EQ(0, sem.Wait(TR_INFINITE));
        });
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i)
                ASSERT_TRUE(sem.Release(1));
        });
    for (auto& th : threads)
        th.join();
    // Nothing left over: every release was taken exactly once.
    EXPECT_EQ(TR_WAIT_TIMEOUT, sem.Wait(0));
    EXPECT_TRUE(sem.Delete());
}
