// Races on the synchronisation primitives: hand-offs through auto-reset
// events, named events created from many threads, semaphore counting, and
// threads started and joined through CThread.  Meant for the TSan run too.
#include "trace/CEvent.h"
#include "trace/CSemaphore.h"
#include "trace/CThread.h"
#include "trace/SyncTypes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(SyncFault, AutoResetEventHandsOverEachSetToExactlyOneWaiter)
{
    // Ping-pong: every Set wakes exactly one waiter, so the counter moves
    // strictly in turn.
    CEvent ping(false, false), pong(false, false);
    constexpr int kRounds = 2000;
    int shared = 0; // guarded by the hand-over itself
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

TEST(SyncFault, NamedEventsCreatedConcurrentlyShareOneState)
{
    constexpr int kThreads = 8;
    for (int round = 0; round < 50; ++round) {
        const std::string name = "sync-fault-" + std::to_string(round);
        std::atomic<int> woken{0};
        CEvent keeper(false, true, name.c_str());
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                CEvent mine(false, true, name.c_str());
                if (mine.Wait(TR_INFINITE) == TR_WAIT_OBJECT_0)
                    ++woken;
            });
        keeper.Set(); // a manual-reset event stays set for late comers
        for (auto& th : threads)
            th.join();
        EXPECT_EQ(kThreads, woken.load());
    }
}

TEST(SyncFault, SemaphoreCountsEveryReleaseOnce)
{
    CSemaphore sem;
    ASSERT_TRUE(sem.Create(0, 100000));
    constexpr int kProducers = 4, kPerProducer = 5000;
    std::atomic<int> taken{0};
    std::vector<std::thread> consumers;
    for (int c = 0; c < 2; ++c)
        consumers.emplace_back([&] {
            while (taken.fetch_add(1) < kProducers * kPerProducer)
                ASSERT_EQ(0, sem.Wait(TR_INFINITE));
        });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i)
                ASSERT_TRUE(sem.Release(1));
        });
    for (auto& th : producers)
        th.join();
    for (auto& th : consumers)
        th.join();
    // Nothing left over: every release was taken exactly once.
    EXPECT_EQ(TR_WAIT_TIMEOUT, sem.Wait(0));
    EXPECT_TRUE(sem.Delete());
}

void* CountUp(void* arg)
{
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
    return nullptr;
}

TEST(SyncFault, ThreadsStartedAndJoinedInRounds)
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

} // namespace
