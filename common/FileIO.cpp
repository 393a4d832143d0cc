#include "common/FileIO.h"

#include "common/UniqueHandle.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvd {

namespace {

int SystemOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t SystemWrite(int fd, const void* data, size_t size) { return ::write(fd, data, size); }
int SystemFsync(int fd) { return ::fsync(fd); }
int SystemRename(const char* from, const char* to) { return ::rename(from, to); }

// Reads grow the buffer in steps of this size (or the file's size where
// fstat knows it), never past the caller's limit.
constexpr size_t kReadStep = 64 * 1024;

std::string DirectoryOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

const FileOps& SystemFileOps()
{
    static const FileOps ops{SystemOpen, SystemWrite, SystemFsync, SystemRename};
    return ops;
}

ssize_t ReadFull(int fd, void* buffer, size_t want)
{
    auto* p = static_cast<char*>(buffer);
    size_t got = 0;
    while (got < want) {
        ssize_t n = ::read(fd, p + got, want - got);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

int ReadFdBounded(int fd, size_t limit, std::string& out, bool* cut)
{
    std::string text;
    struct stat st {};
    // /proc and /sys files report a size of 0 or 4096 whatever they hold:
    // the size only sizes the first step.
    size_t step = kReadStep;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
        step = static_cast<size_t>(st.st_size) + 1;
    const size_t hardLimit = limit == SIZE_MAX ? limit : limit + 1;
    for (;;) {
        size_t used = text.size();
        if (used >= hardLimit)
            break;
        size_t want = step < hardLimit - used ? step : hardLimit - used;
        text.resize(used + want);
        ssize_t n = ReadFull(fd, text.data() + used, want);
        if (n < 0)
            return errno;
        text.resize(used + static_cast<size_t>(n));
        if (static_cast<size_t>(n) < want)
            break;
        step = kReadStep;
    }
    const bool over = text.size() > limit;
    if (over)
        text.resize(limit);
    if (cut)
        *cut = over;
    out.swap(text);
    return 0;
}

int ReadFileBounded(const char* path, size_t limit, std::string& out, bool* cut)
{
    if (path == nullptr || *path == '\0')
        return EINVAL;
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd)
        return errno;
    return ReadFdBounded(fd.Get(), limit, out, cut);
}

bool WriteAll(int fd, const void* data, size_t size, const FileOps& ops, size_t piece)
{
    const auto* p = static_cast<const char*>(data);
    if (piece == 0)
        piece = 1;
    while (size > 0) {
        ssize_t w = ops.write(fd, p, size < piece ? size : piece);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            if (w == 0)
                errno = EIO;
            return false;
        }
        p += w;
        size -= static_cast<size_t>(w);
    }
    return true;
}

int FsyncDirectory(const std::string& dir)
{
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || ::fsync(fd.Get()) != 0)
        return errno;
    return 0;
}

bool AtomicWrite::Write(const void* data, size_t size)
{
    const FileOps& o = ops ? *ops : SystemFileOps();
    const std::string temp = tempPath.empty() ? path + ".new" : tempPath;
    failedStep = kNone;
    failedErrno = 0;
    auto fail = [this](Step step, int err) {
        failedStep = step;
        failedErrno = err;
        return false;
    };
    auto warn = [this](Step step, const std::string& where, int err) {
        failedStep = step;
        failedErrno = err;
        if (onWarning)
            onWarning(warningContext, step, where, err);
    };

    UniqueFd fd(o.open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd)
        return fail(kOpen, errno);
    // The new file must be complete on disk before it replaces anything.
    if (!WriteAll(fd.Get(), data, size, o, piece) || o.fsync(fd.Get()) != 0)
        return fail(kWrite, errno);
    if (fchmod(fd.Get(), mode) != 0)
        warn(kMode, temp, errno);
    if (::close(fd.Release()) != 0)
        return fail(kClose, errno);

    struct stat st {};
    if (!backupPath.empty() && stat(path.c_str(), &st) == 0 && st.st_size > 0 &&
        o.rename(path.c_str(), backupPath.c_str()) != 0)
        warn(kBackup, path, errno);
    if (o.rename(temp.c_str(), path.c_str()) != 0)
        return fail(kReplace, errno);
    if (chmod(path.c_str(), mode) != 0)
        warn(kMode, path, errno);
    if (int err = FsyncDirectory(DirectoryOf(path)); err != 0)
        warn(kSyncDir, DirectoryOf(path), err);
    return true;
}

} // namespace tarvd
