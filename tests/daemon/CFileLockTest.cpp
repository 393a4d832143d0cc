#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TestSupport.h"
#include "daemon/CFileLock.h"

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

std::string Holder(const char* owner = "kopd")
{
    return std::string(owner) + "#" + std::to_string(getpid());
}

/// A child process that takes the lock and keeps it until killed.
class LockHolderProcess {
public:
    explicit LockHolderProcess(const std::string& name)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        m_Pid = fork();
        if (m_Pid == 0) {
            close(fds[0]);
            CFileLock lock;
            char ok = lock.Lock(name.c_str(), "kopd", 0) ? '1' : '0';
            if (write(fds[1], &ok, 1) != 1)
                _exit(2);
            pause();
            _exit(0);
        }
        close(fds[1]);
        char ok = 0;
        m_Locked = read(fds[0], &ok, 1) == 1 && ok == '1';
        close(fds[0]);
    }
    ~LockHolderProcess()
    {
        if (m_Pid > 0) {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, nullptr, 0);
        }
    }
    bool Locked() const { return m_Locked; }
    pid_t Pid() const { return m_Pid; }

private:
    pid_t m_Pid = -1;
    bool m_Locked = false;
};

} // namespace

TEST(CFileLock, TakesLockWritesHolderAndRemovesFileOnDestruction)
{
    TempDir dir;
    std::string name = dir.Sub("kopd");
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock(name.c_str(), "kopd", 0));
        EXPECT_TRUE(lock.IsLocked());
        EXPECT_EQ(lock.LastError(), 0);
        EXPECT_EQ(lock.LockFileName(), name + ".lock");
        EXPECT_EQ(ReadFile(name + ".lock"), Holder());

        // The lock is really held: another open file description cannot take it.
        int fd = open((name + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_NE(flock(fd, LOCK_EX | LOCK_NB), 0);
        EXPECT_EQ(errno, EWOULDBLOCK);
        close(fd);
    }
    EXPECT_FALSE(FileExists(name + ".lock"));
}

TEST(CFileLock, EmptyOwnerWritesOnlyThePid)
{
    TempDir dir;
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(dir.Sub("x").c_str(), "", 0));
    EXPECT_EQ(ReadFile(dir.Sub("x.lock")), "#" + std::to_string(getpid()));
}

TEST(CFileLock, NullOrEmptyNameFails)
{
    CFileLock lock;
    EXPECT_FALSE(lock.Lock(nullptr, "kopd", 0));
    EXPECT_FALSE(lock.Lock("", "kopd", 0));
    EXPECT_FALSE(lock.IsLocked());
}

TEST(CFileLock, RelativeNameFailsWithoutCreatingAnything)
{
    CFileLock lock;
    EXPECT_FALSE(lock.Lock("relative/kopd", "kopd", 0));
    EXPECT_FALSE(FileExists("relative"));
}

TEST(CFileLock, RefusedWhileAnotherProcessHoldsIt)
{
    TempDir dir;
    std::string name = dir.Sub("kopd");
    LockHolderProcess holder(name);
    ASSERT_TRUE(holder.Locked());
    std::string expected = "kopd#" + std::to_string(holder.Pid());
    ASSERT_EQ(ReadFile(name + ".lock"), expected);

    {
        CFileLock second;
        EXPECT_FALSE(second.Lock(name.c_str(), "kopd", 0));
        EXPECT_FALSE(second.IsLocked());
        EXPECT_EQ(second.LastError(), EWOULDBLOCK);
        EXPECT_EQ(second.HolderText(), expected);
    }
    // The refused object removed nothing and changed nothing.
    EXPECT_EQ(ReadFile(name + ".lock"), expected);
}

TEST(CFileLock, RetriesDoNotHelpAgainstALiveHolder)
{
    // Only the sharing-violation code is retried; a held flock fails at once
    // whatever the wait time.
    TempDir dir;
    std::string name = dir.Sub("kopd");
    LockHolderProcess holder(name);
    ASSERT_TRUE(holder.Locked());
    CFileLock second;
    EXPECT_FALSE(second.Lock(name.c_str(), "kopd", 250));
    EXPECT_EQ(second.LastError(), EWOULDBLOCK);
}

TEST(CFileLock, StaleFileOfDeadProcessIsTakenOver)
{
    TempDir dir;
    std::string name = dir.Sub("kopd");
    ASSERT_TRUE(WriteFile(name + ".lock", "kopd#999999 and some longer leftover text"));
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(name.c_str(), "kopd", 0));
    // Truncated and rewritten with our pid.
    EXPECT_EQ(ReadFile(name + ".lock"), Holder());
}

TEST(CFileLock, LockAfterHolderDiedSucceeds)
{
    TempDir dir;
    std::string name = dir.Sub("kopd");
    {
        LockHolderProcess holder(name);
        ASSERT_TRUE(holder.Locked());
    }  // killed: its file stays, its lock is gone
    ASSERT_TRUE(FileExists(name + ".lock"));
    CFileLock lock;
    EXPECT_TRUE(lock.Lock(name.c_str(), "kopd", 0));
    EXPECT_EQ(ReadFile(name + ".lock"), Holder());
}

TEST(CFileLock, CreatesMissingDirectoriesWithMode0711)
{
    TempDir dir;
    mode_t old = umask(0);
    std::string name = dir.Sub("var/lock/sub/kopd");
    CFileLock lock;
    bool ok = lock.Lock(name.c_str(), "kopd", 0);
    umask(old);
    ASSERT_TRUE(ok);
    for (const char* d : {"var", "var/lock", "var/lock/sub"}) {
        struct stat st {};
        ASSERT_EQ(stat(dir.Sub(d).c_str(), &st), 0) << d;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0711u) << d;
    }
    struct stat st {};
    ASSERT_EQ(stat((name + ".lock").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST(CFileLock, DirectoryThatCannotBeCreatedFails)
{
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("file"), "x"));
    CFileLock lock;
    EXPECT_FALSE(lock.Lock(dir.Sub("file/kopd").c_str(), "kopd", 0));
    EXPECT_EQ(lock.LastError(), ENOTDIR);
    EXPECT_FALSE(lock.IsLocked());
}

TEST(CFileLock, SymlinkedLockFileIsNotFollowed)
{
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.Sub("victim"), "precious"));
    ASSERT_EQ(symlink(dir.Sub("victim").c_str(), dir.Sub("kopd.lock").c_str()), 0);
    CFileLock lock;
    EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
    EXPECT_EQ(ReadFile(dir.Sub("victim")), "precious");
}

TEST(CFileLock, LockingAgainReleasesThePreviousFile)
{
    TempDir dir;
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(dir.Sub("a").c_str(), "kopd", 0));
    ASSERT_TRUE(lock.Lock(dir.Sub("b").c_str(), "kopd", 0));
    // "a.lock" is no longer locked by us.
    int fd = open(dir.Sub("a.lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    close(fd);
}

namespace {
/// Simulates another instance that removes the lock file right after we
/// opened it (its destructor unlinks the file it held).
class RacingLock : public CFileLock {
public:
    int removals = 0;
    int opens = 0;

protected:
    void OnLockFileOpened() override
    {
        ++opens;
        if (removals < 1) {
            ++removals;
            unlink(LockFileName().c_str());
        }
    }
};
} // namespace

TEST(CFileLock, LockOnFileRemovedMeanwhileIsNotCountedAsHeld)
{
    TempDir dir;
    std::string name = dir.Sub("kopd");
    RacingLock lock;
    ASSERT_TRUE(lock.Lock(name.c_str(), "kopd", 0));
    EXPECT_EQ(lock.removals, 1);
    EXPECT_EQ(lock.opens, 2);  // started over once
    // The lock is on the file the path names now.
    ASSERT_EQ(ReadFile(name + ".lock"), Holder());
    int fd = open((name + ".lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_NE(flock(fd, LOCK_EX | LOCK_NB), 0);
    close(fd);
}

namespace {
class AlwaysRemovedLock : public CFileLock {
protected:
    void OnLockFileOpened() override { unlink(LockFileName().c_str()); }
};
} // namespace

TEST(CFileLock, GivesUpWhenTheFileKeepsDisappearing)
{
    TempDir dir;
    AlwaysRemovedLock lock;
    EXPECT_FALSE(lock.Lock(dir.Sub("kopd").c_str(), "kopd", 0));
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_NE(lock.LastError(), 0);
}

TEST(CFileLock, RetriesAreTheWaitTimeInHundredsOfMilliseconds)
{
    EXPECT_EQ(CFileLock::RetriesFor(0), 0);
    EXPECT_EQ(CFileLock::RetriesFor(99), 0);
    EXPECT_EQ(CFileLock::RetriesFor(100), 1);
    EXPECT_EQ(CFileLock::RetriesFor(250), 2);
}
