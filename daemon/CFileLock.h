// CFileLock: a single-instance lock.  Holds an exclusive flock() on
// "<name>.lock" for the object's lifetime, writes the holder's identity
// ("<owner>#<pid>") into it and removes the file when destroyed.
#pragma once

#include <string>

#include "common/UniqueHandle.h"

class CFileLock {
public:
    CFileLock() = default;
    /// Releases the lock and removes the lock file if this object holds it.
    virtual ~CFileLock();
    CFileLock(const CFileLock&) = delete;
    CFileLock& operator=(const CFileLock&) = delete;

    /// Takes the lock on `name` + ".lock", creating missing directories
    /// (mode 0711).  `waitMs` / 100 retries are made, 100 ms apart, while the
    /// probe reports a sharing violation.
    /// @return true when the lock is held.  On failure LastError() holds the
    ///         errno and, when another process holds the file, HolderText()
    ///         what that file contains.  No lock is held after a failure.
    bool Lock(const char* name, const char* owner, int waitMs);

    /// The number of retries Lock() makes for `waitMs` (one every 100 ms).
    static int RetriesFor(int waitMs) { return waitMs / 100; }

    /// The lock is held by this object.
    bool IsLocked() const { return m_bLocked; }
    int LastError() const { return m_LastError; }
    /// Contents of a foreign lock file found by the last failed Lock().
    const std::string& HolderText() const { return m_HolderText; }
    const std::string& LockFileName() const { return m_LockFileName; }

protected:
    /// Called after the lock file has been opened for taking the lock and
    /// before it is locked.  Lets tests interleave another instance's steps.
    virtual void OnLockFileOpened() {}

private:
    bool CreateDirectories(const std::string& dir);
    void CloseFile();
    /// Whether an existing lock file is free to take (its holder is gone),
    /// retrying `retries` times while it is shared.
    bool ProbeExisting(int retries);
    bool TakeLock(const char* owner);
    void ReadHolder();

    UniqueFd m_Fd;
    bool m_bLocked = false;
    std::string m_LockFileName;
    int m_LastError = 0;
    std::string m_HolderText;
};
