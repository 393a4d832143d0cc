#include <gtest/gtest.h>

#include <atomic>
#include <sched.h>
#include <thread>

#include "common/CCriticalSection.h"
#include "support/Wait.h"

namespace {

// True when another thread can take the lock right now (it gives it back).
bool FreeForOthers(CCriticalSection& cs)
{
    bool got = false;
    std::thread([&] {
        if ((got = cs.TryEnter()))
            cs.Leave();
    }).join();
    return got;
}

CCriticalSection g_Cancelled;
std::atomic<bool> g_Entered{false};

void* HoldAndBlock(void*)
{
    g_Cancelled.Enter();
    g_Cancelled.Enter();
    pthread_cleanup_push(CCriticalSection::CleanupHandlerForCritSecMutex, &g_Cancelled);
    g_Entered = true;
    for (;;) {  // cancelled here: never inside a blocking call a sanitizer intercepts
        pthread_testcancel();
        sched_yield();
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

} // namespace

TEST(CCriticalSection, RecursionNeedsAsManyLeavesAndOthersCannotLeave)
{
    CCriticalSection cs;
    ASSERT_TRUE(cs.IsUsable());
    cs.Enter();
    cs.Enter();
    EXPECT_TRUE(cs.TryEnter());  // the owner re-enters without blocking
    std::thread([&] {
        cs.Leave();  // not the owner: ignored, by the cancellation handler too
        CCriticalSection::CleanupHandlerForCritSecMutex(&cs);
    }).join();
    EXPECT_EQ(cs.GetRecursionCount(), 3u);
    cs.Leave();
    cs.Leave();
    EXPECT_FALSE(FreeForOthers(cs));
    cs.Leave();
    cs.Leave();  // one too many: ignored as well
    EXPECT_FALSE(cs.IsOwnedByCaller());
    EXPECT_TRUE(FreeForOthers(cs));
    CCriticalSection::CleanupHandlerForCritSecMutex(nullptr);
    auto* held = new CCriticalSection();
    held->Enter();
    delete held;  // released first; a debug mutex would complain otherwise
}

TEST(CCriticalSection, CancellationCleanupReleasesTheLock)
{
    pthread_t th;
    ASSERT_EQ(pthread_create(&th, nullptr, HoldAndBlock, nullptr), 0);
    ASSERT_TRUE(testsupport::WaitFor([] { return g_Entered.load(); }));
    EXPECT_FALSE(FreeForOthers(g_Cancelled));
    ASSERT_EQ(pthread_cancel(th), 0);
    void* status = nullptr;
    ASSERT_EQ(pthread_join(th, &status), 0);
    EXPECT_EQ(status, PTHREAD_CANCELED);
    EXPECT_TRUE(FreeForOthers(g_Cancelled));
}
