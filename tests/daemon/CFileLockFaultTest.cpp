// Faults around the daemon's single-instance lock file: links planted at
// its path, descriptors leaking into children, and many processes racing
// for one lock.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/UniqueHandle.h"
#include "daemon/CFileLock.h"
#include "daemon/CProcess.h"
#include "support/TestSupport.h"

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

/// The number of open descriptors of this process.
int OpenDescriptorCount()
{
    int count = 0;
    UniqueDir d(opendir("/proc/self/fd"));
    if (!d)
        return -1;
    while (dirent* e = readdir(d.Get()))
        count += e->d_name[0] != '.';
    return count - 1;  // the directory's own descriptor
}

/// The descriptor of this process that refers to `path`; -1 when none.
int DescriptorOf(const std::string& path)
{
    for (int fd = 0; fd < 1024; ++fd) {
        char link[PATH_MAX];
        std::string proc = "/proc/self/fd/" + std::to_string(fd);
        ssize_t n = readlink(proc.c_str(), link, sizeof link - 1);
        if (n > 0 && std::string(link, static_cast<size_t>(n)) == path)
            return fd;
    }
    return -1;
}

bool IsSymlink(const std::string& path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

/// Exit status of `command` run as a child that keeps the parent's
/// descriptors (only close-on-exec ones are gone); -1 when it did not run.
int RunKeepingDescriptors(const std::string& command)
{
    uint32_t exitCode = 0;
    uint32_t pid = 0;
    CProcess::ExecuteCmd(command.c_str(), exitCode, pid, nullptr, false, true);
    return exitCode == 0xFFFFFFFFu ? -1 : static_cast<int>(exitCode);
}

} // namespace

// ---------------------------------------------------------------------------
// Links planted at the lock file's path

TEST(CFileLockFault, LinkToAFileLeavesTheVictimUntouched)
{
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("victim"), "precious contents"));
    ASSERT_EQ(chmod(dir.Sub("victim").c_str(), 0600), 0);
    struct stat before {};
    ASSERT_EQ(stat(dir.Sub("victim").c_str(), &before), 0);
    ASSERT_EQ(symlink(dir.Sub("victim").c_str(), dir.Sub("kopd.lock").c_str()), 0);
    int fds = OpenDescriptorCount();
    {
        CFileLock lock;
        // With and without retries: neither the probe nor the take may
        // open the file behind the link.
        EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
        EXPECT_FALSE(lock.IsLocked());
        EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 200));
        EXPECT_FALSE(lock.IsLocked());
    }
    EXPECT_EQ(ReadFile(dir.Sub("victim")), "precious contents");
    struct stat after {};
    ASSERT_EQ(stat(dir.Sub("victim").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    // A refused lock leaves no descriptor behind.
    EXPECT_EQ(OpenDescriptorCount(), fds);
}

TEST(CFileLockFault, DanglingLinkDoesNotCreateItsTarget)
{
    TempDir dir;
    ASSERT_EQ(symlink(dir.Sub("created-by-link").c_str(), dir.Sub("kopd.lock").c_str()), 0);
    {
        CFileLock lock;
        EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
        EXPECT_FALSE(lock.IsLocked());
    }
    EXPECT_FALSE(FileExists(dir.Sub("created-by-link")));
    EXPECT_TRUE(IsSymlink(dir.Sub("kopd.lock")));
}

TEST(CFileLockFault, LinkToADirectoryIsRefused)
{
    TempDir dir;
    ASSERT_TRUE(testsupport::MakeDirs(dir.Sub("target")));
    ASSERT_TRUE(WriteFile(dir.Sub("target/keep"), "x"));
    ASSERT_EQ(symlink(dir.Sub("target").c_str(), dir.Sub("kopd.lock").c_str()), 0);
    {
        CFileLock lock;
        EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
    }
    EXPECT_EQ(ReadFile(dir.Sub("target/keep")), "x");
}

// ---------------------------------------------------------------------------
// Descriptors and children

TEST(CFileLockFault, LockDescriptorIsNotInheritedByAChild)
{
    TempDir dir;
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
    int fd = DescriptorOf(dir.Sub("kopd.lock"));
    ASSERT_GE(fd, 0) << "the held lock file should be open in this process";
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);

    // The method works: a descriptor without close-on-exec is seen by the
    // child under the same number.
    UniqueFd plain(open(dir.Sub("kopd.lock").c_str(), O_RDONLY));
    ASSERT_TRUE(plain);
    EXPECT_EQ(RunKeepingDescriptors("test -e /proc/self/fd/" + std::to_string(plain.Get())), 0);

    EXPECT_EQ(RunKeepingDescriptors("test -e /proc/self/fd/" + std::to_string(fd)), 1)
        << "the lock descriptor " << fd << " reached the child";
}

TEST(CFileLockFault, ChildDoesNotKeepTheLockAfterTheHolderReleasesIt)
{
    TempDir dir;
    uint32_t pid = 0;
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
        // A long-lived child started while the lock is held.
        ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 30", pid, nullptr, false, true));
    }
    CFileLock again;
    bool taken = again.Lock(dir.Sub("kopd").c_str(), "kopd", 0);
    CProcess::TerminateProcess(pid);
    uint32_t exitCode = 0;
    CProcess::WaitForExit(pid, exitCode);
    EXPECT_TRUE(taken) << "a child kept the released lock";
}

// ---------------------------------------------------------------------------
// Many processes racing for one lock

TEST(CFileLockFault, AtMostOneOfManyProcessesHoldsTheLock)
{
    constexpr int kChildren = 8;
    constexpr int kRounds = 50;
    struct Shared {
        std::atomic<int> ready;
        std::atomic<int> holders;
        std::atomic<int> maxHolders;
        std::atomic<int> taken;
        std::atomic<int> refused;
        std::atomic<int> refusedButLocked;
        std::atomic<int> foreignText;
    };
    static_assert(std::atomic<int>::is_always_lock_free);
    void* mem = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    UniqueMapping mapping(mem, sizeof(Shared));
    Shared* shared = new (mem) Shared{};

    TempDir dir;
    const std::string name = dir.Sub("run/kopd");
    pid_t pids[kChildren];
    for (int c = 0; c < kChildren; ++c) {
        pids[c] = fork();
        ASSERT_GE(pids[c], 0);
        if (pids[c] == 0) {
            alarm(60);  // a hang ends the child with SIGALRM, seen below
            // All children start together, so that they really compete.
            shared->ready.fetch_add(1);
            while (shared->ready.load() < kChildren)
                sched_yield();
            for (int round = 0; round < kRounds; ++round) {
                CFileLock lock;
                if (lock.Lock(name.c_str(), "race", 0)) {
                    int now = shared->holders.fetch_add(1) + 1;
                    int seen = shared->maxHolders.load();
                    while (now > seen && !shared->maxHolders.compare_exchange_weak(seen, now)) {
                    }
                    shared->taken.fetch_add(1);
                    usleep(500);  // hold it a moment: others must be kept out meanwhile
                    // Others trying meanwhile must not have emptied or
                    // overwritten the holder's identity.
                    if (ReadFile(name + ".lock") != "race#" + std::to_string(getpid()))
                        shared->foreignText.fetch_add(1);
                    shared->holders.fetch_sub(1);
                } else {
                    shared->refused.fetch_add(1);
                    if (lock.IsLocked())
                        shared->refusedButLocked.fetch_add(1);
                }
            }
            _exit(0);
        }
    }
    for (int c = 0; c < kChildren; ++c) {
        int status = 0;
        ASSERT_EQ(waitpid(pids[c], &status, 0), pids[c]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "child " << c << " ended abnormally (status " << status << "; SIGALRM means it hung)";
    }
    EXPECT_EQ(shared->maxHolders.load(), 1) << "the lock was held by more than one process at once";
    EXPECT_EQ(shared->taken.load() + shared->refused.load(), kChildren * kRounds);
    EXPECT_GT(shared->taken.load(), 0);
    EXPECT_EQ(shared->refusedButLocked.load(), 0);
    EXPECT_EQ(shared->foreignText.load(), 0) << "the holder's identity was overwritten while it held the lock";
    EXPECT_EQ(shared->holders.load(), 0);
    printf("lock race: %d processes x %d rounds, %d taken, %d refused\n", kChildren, kRounds,
           shared->taken.load(), shared->refused.load());
    // The last holder removed the file.
    EXPECT_FALSE(FileExists(name + ".lock"));
}
