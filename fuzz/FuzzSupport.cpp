#include "FuzzSupport.h"

#include "common/UniqueHandle.h"

#include <cerrno>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fuzzsupport {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

struct Scratch {
    std::string path;
    Scratch()
    {
        const char* base = getenv("TARVD_FUZZ_TMP");
        struct stat st {};
        if (!base || !*base)
            base = (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && access("/dev/shm", W_OK) == 0) ? "/dev/shm"
                                                                                                        : "/tmp";
        std::string templ = std::string(base) + "/tarvd-fuzz-XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        path = templ;
    }
    ~Scratch() { nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }
};

} // namespace

const std::string& ScratchDir()
{
    static Scratch scratch;
    return scratch.path;
}

bool WriteWhole(const std::string& path, const void* data, size_t size)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd)
        return false;
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t w = write(fd.Get(), p, size);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        size -= static_cast<size_t>(w);
    }
    return true;
}

std::string ReadWhole(const std::string& path)
{
    std::string out;
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return out;
    char buf[4096];
    for (;;) {
        ssize_t r = read(fd.Get(), buf, sizeof(buf));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        out.append(buf, static_cast<size_t>(r));
    }
    return out;
}

void Fail(const char* file, int line, const char* what)
{
    fprintf(stderr, "%s:%d: fuzz invariant failed: %s\n", file, line, what);
    fflush(stderr);
    abort();
}

} // namespace fuzzsupport
