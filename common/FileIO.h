// Whole-file reads with a size cap and replace-by-rename writes: the two ways
// the library reads and writes its files.  Every read loop retries EINTR and
// stops at the cap, so a huge or endless file (a /proc file, a device) costs
// bounded memory.
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace tarvd {

/// The system calls a replace-by-rename write uses; tests put failing ones
/// in their place.
struct FileOps {
    int (*open)(const char* path, int flags, mode_t mode);
    ssize_t (*write)(int fd, const void* data, size_t size);
    int (*fsync)(int fd);
    int (*rename)(const char* from, const char* to);
};

/// The real system calls.
const FileOps& SystemFileOps();

/// read() until `want` bytes are in `buffer` or the file ends, retrying EINTR.
/// @return the bytes read, or -1 (errno set) on a read error.
ssize_t ReadFull(int fd, void* buffer, size_t want);

/// Reads the rest of `fd`, at most `limit` bytes, into `out` (replaced).
/// @param cut set to true when the file holds more than `limit` bytes (one
///        more byte is read to find out); may be null.
/// @return 0, or the errno of the failed read (`out` then unchanged).
int ReadFdBounded(int fd, size_t limit, std::string& out, bool* cut = nullptr);

/// Opens `path` read-only (close-on-exec) and reads it like ReadFdBounded.
/// @return 0, or the errno of the failed open or read (`out` unchanged).
int ReadFileBounded(const char* path, size_t limit, std::string& out, bool* cut = nullptr);

/// Writes all of `size` bytes in pieces of at most `piece` bytes, retrying
/// EINTR.  @return false (errno set; EIO for a write of 0 bytes) on the
/// first failed write.
bool WriteAll(int fd, const void* data, size_t size, const FileOps& ops = SystemFileOps(), size_t piece = 1 << 20);

/// fsync of a directory, so that a rename in it survives a crash.
/// @return 0 or errno.
int FsyncDirectory(const std::string& dir);

/// A replace-by-rename write: `data` goes to `tempPath` (created with
/// O_NOFOLLOW, so a link planted there is not written through), is synced,
/// the file at `path` is optionally renamed to `backupPath` (only when it
/// exists and is not empty), then `tempPath` is renamed to `path` and the
/// directory is synced.  A crash at any moment leaves a whole file at `path`
/// or at `backupPath`.
struct AtomicWrite {
    enum Step { kNone, kOpen, kWrite, kClose, kBackup, kReplace, kMode, kSyncDir };

    std::string path;
    std::string tempPath;       ///< default: path + ".new"
    std::string backupPath;     ///< empty: no backup
    mode_t mode = 0644;         ///< set on the new file (fchmod) and after the rename
    size_t piece = 1 << 20;     ///< largest single write
    const FileOps* ops = nullptr;  ///< null: the real system calls

    /// Where the last Write failed, or where a failure that did not stop it
    /// happened last (backup rename, mode, directory sync), and its errno.
    Step failedStep = kNone;
    int failedErrno = 0;
    /// Non-fatal failures (kBackup, kMode, kSyncDir) are reported here as
    /// they happen, so that the caller can trace each; may be null.
    void (*onWarning)(void* context, Step step, const std::string& path, int err) = nullptr;
    void* warningContext = nullptr;

    /// @return true when `path` holds `data` afterwards.  On failure the file
    /// at `path` is untouched and failedStep/failedErrno say why.
    bool Write(const void* data, size_t size);
};

} // namespace tarvd
