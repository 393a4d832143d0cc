#include "daemon/CFileLock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FileIO.h"
#include "trace/CDebug.h"

namespace {
// Paths are built in buffers of this size; longer names are cut.
constexpr size_t kPathBuffer = 260;
// Holder texts longer than this are cut when read back.
constexpr size_t kHolderMax = 255;
// A historical sharing-violation code; the probe retries only on it.
constexpr int kSharingViolation = 32;
// How often the lock is taken again when another instance removed the file
// between our open and our flock.
constexpr int kMaxStartOvers = 16;
} // namespace

CFileLock::~CFileLock()
{
    if (m_Fd) {
        DBG_PRINT(5, "\nCFileLock           :   release file lock using file %s", m_LockFileName.c_str());
        // The name goes first, while the lock is still held: an instance
        // waiting in flock() on this file then finds the path no longer
        // naming it and starts over.  Removed after the unlock, the name
        // could vanish under a waiter that has just taken the lock, and a
        // third instance would create a fresh file and lock that as well.
        unlink(m_LockFileName.c_str());
        CloseFile();
    }
}

void CFileLock::CloseFile()
{
    if (m_Fd && m_bLocked) {
        fsync(m_Fd.Get());
        flock(m_Fd.Get(), LOCK_UN);
    }
    m_Fd.Reset();
    m_bLocked = false;
}

bool CFileLock::CreateDirectories(const std::string& dir)
{
    // mkdir -p: every prefix before a '/' (after the leading one), then the
    // whole directory.
    char path[kPathBuffer];
    snprintf(path, sizeof path, "%s", dir.c_str());
    size_t len = strlen(path);
    for (size_t i = 1; i <= len; ++i) {
        if (i < len && path[i] != '/')
            continue;
        char saved = path[i];
        path[i] = '\0';
        if (mkdir(path, 0711) != 0 && errno != EEXIST) {
            path[i] = saved;
            return false;
        }
        path[i] = saved;
    }
    return true;
}

void CFileLock::ReadHolder()
{
    UniqueFd fd(open(m_LockFileName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        m_LastError = errno;
        return;
    }
    std::string text;
    if (tarvd::ReadFdBounded(fd.Get(), kHolderMax, text) == 0 && !text.empty())
        m_HolderText = std::move(text);
}

bool CFileLock::TakeLock(const char* owner)
{
    for (int attempt = 0; attempt < kMaxStartOvers; ++attempt) {
        // Not truncated here: the file may still be held by another
        // instance whose identity it holds; it is emptied once ours.
        m_Fd.Reset(open(m_LockFileName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
        if (!m_Fd) {
            m_LastError = errno;
            return false;
        }
        const int fd = m_Fd.Get();
        m_bLocked = true;
        OnLockFileOpened();
        flock(fd, LOCK_EX);
        if (flock(fd, LOCK_EX | LOCK_NB) != 0)
            m_LastError = errno;

        // Another instance may have removed the file between our open and
        // our flock (its destructor unlinks it).  A lock on a removed file
        // excludes nobody: start over on the file the path names now.
        struct stat byFd {};
        struct stat byPath {};
        if (fstat(fd, &byFd) != 0 || stat(m_LockFileName.c_str(), &byPath) != 0 ||
            byFd.st_dev != byPath.st_dev || byFd.st_ino != byPath.st_ino) {
            DBG_PRINT(3, "\nCFileLock::Lock     : lockfile %s was removed meanwhile, starting over\n",
                      m_LockFileName.c_str());
            CloseFile();
            continue;
        }

        char contents[kPathBuffer];
        contents[0] = '\0';
        if (owner && *owner)
            snprintf(contents, sizeof contents, "%s#%d", owner, static_cast<int>(getpid()));
        else
            snprintf(contents, sizeof contents, "#%d", static_cast<int>(getpid()));
        m_LastError = 0;
        if (ftruncate(fd, 0) != 0)
            m_LastError = errno;
        size_t len = strlen(contents);
        if (len > 0 && write(fd, contents, len) < 0)
            m_LastError = errno;
        fsync(fd);
        return true;
    }
    m_LastError = EAGAIN;
    return false;
}

bool CFileLock::Lock(const char* name, const char* owner, int waitMs)
{
    if (!name || !*name)
        return false;
    DBG_PRINT(5, "\nCFileLock           :   apply file lock using file %s...", name);

    char path[kPathBuffer];
    snprintf(path, sizeof path, "%s%s", name, ".lock");
    m_LockFileName = path;
    DBG_PRINT(3, "\nCFileLock::Lock     : LockFileName.c_str() = %s\n", m_LockFileName.c_str());

    // The directory: everything up to the last '/' that is not the last character.
    std::string dir;
    size_t slash = m_LockFileName.find_last_of('/', m_LockFileName.size() >= 2 ? m_LockFileName.size() - 2 : 0);
    if (slash != std::string::npos)
        dir = m_LockFileName.substr(0, slash);
    DBG_PRINT(3, "\nCFileLock::Lock     : LockFileDir.c_str() = %s\n", dir.c_str());

    errno = 0;
    if (m_LockFileName[0] != '/' || !CreateDirectories(dir)) {
        m_LastError = errno;
        DBG_PRINT(1, "\nCFileLock           : ## ERROR! Failed to open/create lock directory %s (LastError = 0x%08X)",
                  dir.c_str(), static_cast<unsigned>(m_LastError));
        return false;
    }

    if (m_Fd)
        CloseFile();

    int retries = RetriesFor(waitMs);
    DBG_PRINT(3, "\nCFileLock::Lock     : nrRetries = %d\n", retries);

    bool lockable = false;
    struct stat st {};
    if (stat(m_LockFileName.c_str(), &st) != 0) {
        DBG_PRINT(3, "\nCFileLock::Lock     : lockfile %s does NOT exist!\n", m_LockFileName.c_str());
        DBG_PRINT(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", "true");
        lockable = true;
    } else {
        DBG_PRINT(3, "\nCFileLock::Lock     : lockfile %s EXISTS!\n", m_LockFileName.c_str());
        lockable = ProbeExisting(retries);
    }

    if (lockable)
        return TakeLock(owner);

    DBG_PRINT(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", "false");
    m_HolderText.clear();
    ReadHolder();
    return false;
}

bool CFileLock::ProbeExisting(int retries)
{
    UniqueFd fd(open(m_LockFileName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        m_LastError = errno;
        DBG_PRINT(3, "\nCFileLock::Lock     : Could NOT open lockfile %s\n", m_LockFileName.c_str());
        return false;
    }
    DBG_PRINT(3, "\nCFileLock::Lock     : Successfully opened lockfile %s\n", m_LockFileName.c_str());
    DBG_PRINT(3, "\nCFileLock::Lock     : Trying to lock lockfile %s\n", m_LockFileName.c_str());
    bool lockable = false;
    for (;;) {
        if (flock(fd.Get(), LOCK_EX | LOCK_NB) == 0) {
            DBG_PRINT(3, "\nCFileLock::Lock     : Successfully locked lockfile %s\n", m_LockFileName.c_str());
            if (flock(fd.Get(), LOCK_UN) != 0)
                m_LastError = errno;
            lockable = true;  // a stale file of a dead process
            break;
        }
        int err = errno;
        if (err == kSharingViolation) {
            DBG_PRINT(3, "\nCFileLock::Lock     : Error Sharing Violation while trying to lock lockfile %s\n",
                      m_LockFileName.c_str());
            --retries;
            usleep(100000);
            if (retries < 1)
                break;
            continue;
        }
        m_LastError = err;
        DBG_PRINT(3, "\nCFileLock::Lock     : Could NOT lock lockfile %s\n", m_LockFileName.c_str());
        break;
    }
    fd.Reset();
    if (lockable)
        DBG_PRINT(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", "true");
    return lockable;
}
