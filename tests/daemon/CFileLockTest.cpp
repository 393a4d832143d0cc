// The daemon's single-instance lock file: taking and releasing it, bad
// names, live and dead holders, links planted at its path, descriptors
// leaking into children, and many processes racing for one lock.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "daemon/CFileLock.h"
#include "daemon/CProcess.h"
#include "support/TestSupport.h"
#include "support/Wait.h"

using namespace testsupport;

namespace {

std::string Holder() { return "kopd#" + std::to_string(getpid()); }

/// True when another open file description can take the lock on `path`.
bool Free(const std::string& path)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd && flock(fd.Get(), LOCK_EX | LOCK_NB) == 0;
}

mode_t Mode(const std::string& path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

/// The open descriptors of this process, by number, and what each refers to.
std::map<int, std::string> Descriptors()
{
    std::map<int, std::string> fds;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd"))
        fds[std::stoi(e.path().filename())] = std::filesystem::read_symlink(e.path(), ec);
    return fds;
}

/// Another instance that removes the lock file right after we opened it, `times` times.
struct RacingLock : CFileLock {
    explicit RacingLock(int times) : m_Times(times) {}
    void OnLockFileOpened() override
    {
        if (m_Opens++ < m_Times)
            unlink(LockFileName().c_str());
    }
    int m_Times, m_Opens = 0;
};

} // namespace

TEST(CFileLock, TakesLockCreatesDirectoriesRemovesFileOnReleaseAndRefusesBadNames)
{
    TempDir dir;
    const std::string name = dir.Sub("var/lock/sub/kopd"), file = name + ".lock";
    mode_t old = umask(0);
    {
        CFileLock lock;
        bool ok = lock.Lock(name.c_str(), "kopd", 0);
        umask(old);
        ASSERT_TRUE(ok && lock.IsLocked());
        EXPECT_TRUE(ReadFile(file) == Holder() && !Free(file));
        for (const char* d : {"var", "var/lock", "var/lock/sub"})
            EXPECT_EQ(Mode(dir.Sub(d)), S_IFDIR | 0711u) << d;
        EXPECT_EQ(Mode(file), S_IFREG | 0644u);

        // Locking again releases the previous file; an empty owner writes the pid alone.
        ASSERT_TRUE(lock.Lock(dir.Sub("b").c_str(), "", 0));
        EXPECT_TRUE(Free(file) && ReadFile(dir.Sub("b.lock")) == "#" + std::to_string(getpid()));
    }
    EXPECT_FALSE(FileExists(dir.Sub("b.lock")));

    // Bad names fail without creating anything.
    const std::string underFile = dir.Sub("b.lock/kopd");
    ASSERT_TRUE(WriteFile(dir.Sub("b.lock"), "x"));
    // {name, error (-1: any)}
    for (auto [name, error] : {std::pair<const char*, int>{nullptr, -1}, {"", -1}, {"relative/kopd", -1},
                               {underFile.c_str(), ENOTDIR}}) {
        CFileLock lock;
        EXPECT_FALSE(lock.Lock(name, "kopd", 0) || lock.IsLocked()) << (name ? name : "null");
        EXPECT_TRUE(error < 0 || lock.LastError() == error) << lock.LastError();
    }
    EXPECT_FALSE(FileExists("relative"));
}

TEST(CFileLock, LiveHolderRefusesAtOnceDeadOneIsTakenOver)
{
    TempDir dir;
    const std::string name = dir.Sub("kopd"), file = name + ".lock";
    pid_t holder = fork();
    if (holder == 0) {  // takes the lock and keeps it until killed
        CFileLock lock;
        lock.Lock(name.c_str(), "kopd", 0);
        alarm(120);  // ends even if the test failed before killing it
        pause();
        _exit(0);
    }
    const std::string expected = "kopd#" + std::to_string(holder);
    ASSERT_TRUE(holder > 0 && WaitFor([&] { return ReadFile(file) == expected; }));
    // Only the sharing-violation code is retried: a held flock fails at once
    // whatever the wait time.
    for (int waitMs : {0, 250}) {
        CFileLock second;
        EXPECT_FALSE(second.Lock(name.c_str(), "kopd", waitMs) || second.IsLocked());
        EXPECT_TRUE(second.LastError() == EWOULDBLOCK && second.HolderText() == expected) << second.HolderText();
    }
    EXPECT_EQ(ReadFile(file), expected);  // the refused objects changed nothing

    kill(holder, SIGKILL), waitpid(holder, nullptr, 0);  // its file stays, its lock is gone
    ASSERT_TRUE(WriteFile(file, "kopd#999999 and some longer leftover text"));
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(name.c_str(), "kopd", 0));
    EXPECT_EQ(ReadFile(file), Holder());  // truncated and rewritten
}

TEST(CFileLockFault, LinksAtTheLockPathAreNeverFollowed)
{
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("victim"), "precious contents"));
    ASSERT_EQ(chmod(dir.Sub("victim").c_str(), 0600), 0);
    ASSERT_TRUE(WriteFile(dir.Sub("target/keep"), "x"));
    const auto fds = Descriptors();
    for (const char* target : {"victim", "created-by-link", "target"}) {
        SCOPED_TRACE(target);
        unlink(dir.Sub("kopd.lock").c_str());
        ASSERT_EQ(symlink(dir.Sub(target).c_str(), dir.Sub("kopd.lock").c_str()), 0);
        {
            CFileLock lock;
            // With and without retries: neither the probe nor the take may
            // open the file behind the link.
            for (int waitMs : {0, 200})
                EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", waitMs) || lock.IsLocked());
        }
        struct stat st{};
        EXPECT_TRUE(lstat(dir.Sub("kopd.lock").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    }
    EXPECT_FALSE(FileExists(dir.Sub("created-by-link")));
    EXPECT_EQ(ReadFile(dir.Sub("target/keep")) + ReadFile(dir.Sub("victim")), "xprecious contents");
    EXPECT_EQ(Mode(dir.Sub("victim")), S_IFREG | 0600u);
    EXPECT_EQ(Descriptors(), fds);  // a refused lock leaves no descriptor behind
}

TEST(CFileLockFault, FileRemovedMeanwhileIsNotCountedAsHeld)
{
    TempDir dir;
    const std::string name = dir.Sub("kopd");
    RacingLock once(1);
    ASSERT_TRUE(once.Lock(name.c_str(), "kopd", 0));
    EXPECT_EQ(once.m_Opens, 2);  // started over once
    // The lock is on the file the path names now.
    EXPECT_TRUE(ReadFile(name + ".lock") == Holder() && !Free(name + ".lock"));

    RacingLock always(1000);  // gives up when the file keeps disappearing
    EXPECT_FALSE(always.Lock(dir.Sub("other").c_str(), "kopd", 0) || always.IsLocked() || !always.LastError());
}

TEST(CFileLockFault, ChildrenNeitherInheritNorKeepTheLock)
{
    TempDir dir;
    uint32_t pid = 0, code = 0;
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
        // A child keeping the parent's descriptors sees a plain one, but not the lock's.
        UniqueFd plain(open(dir.Sub("kopd.lock").c_str(), O_RDONLY));
        ASSERT_TRUE(plain);
        int seen = 0;
        for (const auto& [fd, path] : Descriptors()) {
            if (path != dir.Sub("kopd.lock"))
                continue;
            ++seen;
            CProcess::ExecuteCmd(("test -e /proc/self/fd/" + std::to_string(fd)).c_str(), code, pid, nullptr,
                                 false, true);
            EXPECT_EQ(code, fd == plain.Get() ? 0u : 1u) << "descriptor " << fd;
            EXPECT_EQ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0, fd != plain.Get());
        }
        EXPECT_EQ(seen, 2);
        // A long-lived child started while the lock is held.
        ASSERT_TRUE(CProcess::ExecuteCmdAsync("sleep 30", pid, nullptr, false, true));
    }
    CFileLock again;
    bool taken = again.Lock(dir.Sub("kopd").c_str(), "kopd", 0);
    CProcess::TerminateProcess(pid);
    CProcess::WaitForExit(pid, code);
    EXPECT_TRUE(taken) << "a child kept the released lock";
}

TEST(CFileLockFault, AtMostOneOfManyProcessesHoldsTheLock)
{
    constexpr int kChildren = 8, kRounds = 50;
    struct Shared {
        std::atomic<int> ready, holders, overlaps, taken, refused, refusedButLocked, foreignText;
    };
    void* mem = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    UniqueMapping mapping(mem, sizeof(Shared));
    Shared* shared = new (mem) Shared{};
    TempDir dir;
    const std::string name = dir.Sub("run/kopd");
    pid_t pids[kChildren];
    for (pid_t& child : pids) {
        ASSERT_GE(child = fork(), 0);
        if (child != 0)
            continue;
        alarm(60);  // a hang ends the child with SIGALRM, seen below
        // All children start together, so that they really compete.
        for (shared->ready++; shared->ready.load() < kChildren;)
            sched_yield();
        for (int round = 0; round < kRounds; ++round) {
            CFileLock lock;
            if (!lock.Lock(name.c_str(), "race", 0)) {
                shared->refused++;
                shared->refusedButLocked += lock.IsLocked();
                continue;
            }
            shared->overlaps += ++shared->holders > 1;
            shared->taken++;
            usleep(500);  // hold it a moment: others must be kept out meanwhile, and not rewrite it
            shared->foreignText += ReadFile(name + ".lock") != "race#" + std::to_string(getpid());
            shared->holders--;
        }
        _exit(0);
    }
    for (pid_t child : pids) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << " (SIGALRM: a hang)";
    }
    EXPECT_EQ(shared->overlaps.load(), 0) << "the lock was held by more than one process at once";
    EXPECT_EQ(shared->taken + shared->refused, kChildren * kRounds);
    EXPECT_GT(shared->taken.load(), 0);
    EXPECT_EQ(shared->refusedButLocked.load(), 0);
    EXPECT_EQ(shared->foreignText.load(), 0) << "the holder's identity was overwritten while it held the lock";
    EXPECT_FALSE(FileExists(name + ".lock"));  // the last holder removed the file
}
