#include "FuzzSupport.h"

#include "common/FileIO.h"
#include "common/UniqueHandle.h"

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

std::string ScratchTree(const char* name, std::initializer_list<const char*> subfolders)
{
    const std::string root = ScratchDir() + "/" + name;
    mkdir(root.c_str(), 0700);
    for (const char* sub : subfolders)
        mkdir((root + sub).c_str(), 0700);
    return root;
}

bool WriteWhole(const std::string& path, const void* data, size_t size)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return fd && tarvd::WriteAll(fd.Get(), data, size);
}

void Fail(const char* file, int line, const char* what)
{
    fprintf(stderr, "%s:%d: fuzz invariant failed: %s\n", file, line, what);
    fflush(stderr);
    abort();
}

} // namespace fuzzsupport
