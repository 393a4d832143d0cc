#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "common/CCriticalSection.h"
#include "common/UniqueHandle.h"

namespace {

// True when another thread can take the lock right now (it gives it back).
bool FreeForOthers(CCriticalSection& cs)
{
    bool got = false;
    std::thread t([&] {
        got = cs.TryEnter();
        if (got)
            cs.Leave();
    });
    t.join();
    return got;
}

} // namespace

TEST(CCriticalSection, RecursionNeedsAsManyLeaves)
{
    CCriticalSection cs;
    ASSERT_TRUE(cs.IsUsable());
    EXPECT_FALSE(cs.IsOwnedByCaller());
    cs.Enter();
    cs.Enter();
    EXPECT_TRUE(cs.TryEnter());  // the owner re-enters without blocking
    EXPECT_EQ(cs.GetRecursionCount(), 3u);
    EXPECT_TRUE(cs.IsOwnedByCaller());
    cs.Leave();
    cs.Leave();
    EXPECT_FALSE(FreeForOthers(cs));
    cs.Leave();
    EXPECT_EQ(cs.GetRecursionCount(), 0u);
    EXPECT_FALSE(cs.IsOwnedByCaller());
    EXPECT_TRUE(FreeForOthers(cs));
}

TEST(CCriticalSection, LeaveByANonOwnerIsIgnored)
{
    CCriticalSection cs;
    cs.Enter();
    std::thread t([&] {
        cs.Leave();
        cs.Leave();
    });
    t.join();
    EXPECT_TRUE(cs.IsOwnedByCaller());
    EXPECT_EQ(cs.GetRecursionCount(), 1u);
    EXPECT_FALSE(FreeForOthers(cs));
    cs.Leave();
    cs.Leave();  // one too many: ignored as well
    EXPECT_TRUE(FreeForOthers(cs));
}

TEST(CCriticalSection, ExcludesOtherThreads)
{
    CCriticalSection cs;
    long counter = 0;  // guarded by cs only: a sanitizer build sees any race
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                CCriticalSectionLock outer(cs);
                CCriticalSectionLock inner(cs);
                ++counter;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, 8000);
    EXPECT_TRUE(FreeForOthers(cs));
}

namespace {

struct CancelArgs {
    CCriticalSection* cs;
    int readFd;
    std::atomic<bool> entered{false};
};

void* HoldAndBlock(void* p)
{
    auto* a = static_cast<CancelArgs*>(p);
    a->cs->Enter();
    a->cs->Enter();
    pthread_cleanup_push(CCriticalSection::CleanupHandlerForCritSecMutex, a->cs);
    a->entered = true;
    char c;
    while (read(a->readFd, &c, 1) != 0) {  // a cancellation point; nobody writes
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

} // namespace

TEST(CCriticalSection, CancellationCleanupReleasesTheLock)
{
    CCriticalSection cs;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
    CancelArgs args;
    args.cs = &cs;
    args.readFd = readEnd.Get();
    pthread_t th;
    ASSERT_EQ(pthread_create(&th, nullptr, HoldAndBlock, &args), 0);
    for (int i = 0; i < 10000 && !args.entered; ++i)
        usleep(1000);
    ASSERT_TRUE(args.entered);
    EXPECT_FALSE(FreeForOthers(cs));
    ASSERT_EQ(pthread_cancel(th), 0);
    void* status = nullptr;
    ASSERT_EQ(pthread_join(th, &status), 0);
    EXPECT_EQ(status, PTHREAD_CANCELED);
    EXPECT_TRUE(FreeForOthers(cs));
    cs.Enter();
    EXPECT_EQ(cs.GetRecursionCount(), 1u);
    cs.Leave();
}

TEST(CCriticalSection, CleanupHandlerIgnoresALockItDoesNotHold)
{
    CCriticalSection cs;
    cs.Enter();
    std::thread t([&] { CCriticalSection::CleanupHandlerForCritSecMutex(&cs); });
    t.join();
    EXPECT_TRUE(cs.IsOwnedByCaller());
    EXPECT_FALSE(FreeForOthers(cs));
    cs.Leave();
    CCriticalSection::CleanupHandlerForCritSecMutex(nullptr);
}

TEST(CCriticalSection, DestroyedWhileHeldByTheDestroyingThread)
{
    auto* cs = new CCriticalSection();
    cs->Enter();
    cs->Enter();
    delete cs;  // releases first; a sanitizer or debug mutex would complain otherwise
    SUCCEED();
}
