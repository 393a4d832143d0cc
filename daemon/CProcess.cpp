#include "daemon/CProcess.h"

#include "common/FileIO.h"
#include "common/ProcStatus.h"
#include "common/UniqueHandle.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <string_view>
#include <vector>

namespace {

// getcwd buffer; a deeper current directory counts as unknown.
constexpr size_t kCwdBufferSize = 4096;
// Limit for closing descriptors in the child when sysconf gives a tiny or no value.
constexpr long kFallbackOpenMax = 1024;
// One line of a /proc file read by get_proc_file.
constexpr size_t kProcLineLimit = 4096;

const std::string& ProcRoot() { return tarvd::ProcRoot(); }


std::string ReadCwd()
{
    char buf[kCwdBufferSize];
    if (getcwd(buf, sizeof(buf)) == nullptr)
        return std::string();
    return std::string(buf);
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::vector<std::string> SplitWords(const char* command)
{
    std::vector<std::string> words;
    const char* p = command;
    while (*p) {
        while (*p && IsBlank(*p))
            ++p;
        const char* start = p;
        while (*p && !IsBlank(*p))
            ++p;
        if (p > start)
            words.emplace_back(start, p);
    }
    return words;
}

} // namespace

void CProcess::SetProcRoot(const char* root)
{
    tarvd::SetProcRoot(root);
}

const std::string& CProcess::GetProcRoot() { return ProcRoot(); }

namespace {

// The exit status of a child whose program could not be run.
constexpr int kExecFailedStatus = 255;

// The set-up every child gets, prepared before it is started (after a fork in
// a threaded program only async-signal-safe calls are allowed).
struct ChildSetup {
    bool closeDescriptors = true;
    long openMax = kFallbackOpenMax;
    sigset_t mask; // the caller's mask without the termination signals
};

ChildSetup MakeChildSetup(bool keepDescriptors)
{
    ChildSetup s;
    s.closeDescriptors = !keepDescriptors;
    s.openMax = sysconf(_SC_OPEN_MAX);
    if (s.openMax <= 255)
        s.openMax = kFallbackOpenMax;
    // The daemon blocks these in every thread and handles them in one; a
    // child must get them delivered.
    pthread_sigmask(SIG_SETMASK, nullptr, &s.mask);
    sigdelset(&s.mask, SIGINT);
    sigdelset(&s.mask, SIGTERM);
    sigdelset(&s.mask, SIGHUP);
    sigdelset(&s.mask, SIGALRM);
    return s;
}

// A child that ends at once with the status of a failed exec.  vfork: the
// child runs nothing but _exit, so no copy of the caller's memory is made.
pid_t StartFailedChild()
{
    pid_t child = vfork();
    if (child == 0)
        _exit(kExecFailedStatus);
    return child;
}

// fork + execvp, the classic way.  Needed where execvp does more than
// posix_spawnp: a program file without "#!" line (ENOEXEC) is run by
// /bin/sh.  Costs a copy of the caller's page tables, so it is the fall-back.
pid_t ForkAndExec(char* const* argv, const ChildSetup& setup)
{
    pid_t child = fork();
    if (child == 0) {
        if (setup.closeDescriptors)
            for (long fd = 3; fd < setup.openMax; ++fd)
                close(static_cast<int>(fd));
        sigprocmask(SIG_SETMASK, &setup.mask, nullptr);
        if (argv[0])
            execvp(argv[0], argv);
        _exit(kExecFailedStatus);
    }
    return child;
}

#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
#define TARVD_HAVE_SPAWN_CLOSEFROM 1
#endif

#ifdef TARVD_HAVE_SPAWN_CLOSEFROM
// Owners of the posix_spawn attribute objects.
struct SpawnFileActions {
    posix_spawn_file_actions_t actions;
    bool ok = posix_spawn_file_actions_init(&actions) == 0;
    ~SpawnFileActions()
    {
        if (ok)
            posix_spawn_file_actions_destroy(&actions);
    }
};
struct SpawnAttributes {
    posix_spawnattr_t attr;
    bool ok = posix_spawnattr_init(&attr) == 0;
    ~SpawnAttributes()
    {
        if (ok)
            posix_spawnattr_destroy(&attr);
    }
};
#endif

// Starts the child.  posix_spawnp shares the caller's memory until the exec
// (no page-table copy), so starting a program costs the same whether the
// caller is small or holds gigabytes.  Returns the child's id or -1 when no
// process could be made.
pid_t StartChild(char* const* argv, const ChildSetup& setup)
{
    if (!argv[0])
        return StartFailedChild();
#ifdef TARVD_HAVE_SPAWN_CLOSEFROM
    SpawnFileActions fa;
    SpawnAttributes sa;
    if (!fa.ok || !sa.ok || (setup.closeDescriptors && posix_spawn_file_actions_addclosefrom_np(&fa.actions, 3) != 0) ||
        posix_spawnattr_setsigmask(&sa.attr, &setup.mask) != 0 ||
        posix_spawnattr_setflags(&sa.attr, POSIX_SPAWN_SETSIGMASK) != 0)
        return ForkAndExec(argv, setup);
    pid_t child = -1;
    int rc = posix_spawnp(&child, argv[0], &fa.actions, &sa.attr, argv, environ);
    if (rc == 0)
        return child;
    if (rc == ENOEXEC)
        return ForkAndExec(argv, setup); // let execvp hand it to the shell
    if (rc == EAGAIN || rc == ENOMEM) {
        errno = rc; // no process could be made at all, as a failed fork
        return -1;
    }
    // The program cannot be run (missing, not executable, ...): the caller
    // still gets a child, which ends with the status of a failed exec.
    return StartFailedChild();
#else
    return ForkAndExec(argv, setup);
#endif
}

} // namespace

bool CProcess::execute_command(const char* command, uint32_t& exitCode, uint32_t& pid, const char* workDir, bool,
                               bool async, bool keepDescriptors)
{
    std::vector<std::string> words = SplitWords(command ? command : "");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (auto& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    std::string savedDir;
    if (workDir) {
        savedDir = ReadCwd();
        if (!savedDir.empty() && chdir(workDir) != 0)
            savedDir.clear(); // nothing to restore: we stayed where we were
    }

    const ChildSetup setup = MakeChildSetup(keepDescriptors);
    exitCode = 0xFFFFFFFFu;
    pid_t child = StartChild(argv.data(), setup);
    pid = static_cast<uint32_t>(child);

    bool result = false;
    if (child > 0) {
        if (async) {
            result = true;
        } else {
            int status = 0;
            pid_t r;
            do {
                r = waitpid(child, &status, 0);
            } while (r < 0 && errno == EINTR);
            if (r == child && WIFEXITED(status)) {
                exitCode = static_cast<uint32_t>(WEXITSTATUS(status));
                result = exitCode == 0;
            }
        }
    }

    if (!savedDir.empty())
        (void)!chdir(savedDir.c_str());
    return result;
}

bool CProcess::ExecuteCmd(const char* command, const char* workDir, bool flag, bool keepDescriptors)
{
    uint32_t exitCode = 0, pid = 0;
    return execute_command(command, exitCode, pid, workDir, flag, false, keepDescriptors);
}

bool CProcess::ExecuteCmd(const char* command, uint32_t& exitCode, uint32_t& pid, const char* workDir, bool flag,
                          bool keepDescriptors)
{
    return execute_command(command, exitCode, pid, workDir, flag, false, keepDescriptors);
}

bool CProcess::ExecuteCmdAsync(const char* command, const char* workDir, bool flag, bool keepDescriptors)
{
    uint32_t exitCode = 0, pid = 0;
    return execute_command(command, exitCode, pid, workDir, flag, true, keepDescriptors);
}

bool CProcess::ExecuteCmdAsync(const char* command, uint32_t& pid, const char* workDir, bool flag,
                               bool keepDescriptors)
{
    uint32_t exitCode = 0;
    return execute_command(command, exitCode, pid, workDir, flag, true, keepDescriptors);
}

bool CProcess::WaitForExit(uint32_t pid, uint32_t& exitCode, uint32_t)
{
    exitCode = 0xFFFFFFFFu;
    int status = 0;
    pid_t r;
    do {
        r = waitpid(static_cast<pid_t>(pid), &status, 0);
    } while (r < 0 && errno == EINTR);
    if (r < 0 || !WIFEXITED(status))
        return false;
    exitCode = static_cast<uint32_t>(WEXITSTATUS(status));
    return exitCode == 0;
}

bool CProcess::TerminateProcess(uint32_t pid, uint32_t)
{
    return kill(static_cast<pid_t>(pid), SIGKILL) == 0;
}

bool CProcess::GetCurrentDir(std::string& dir)
{
    std::string cwd = ReadCwd();
    if (cwd.empty())
        return false;
    dir = std::move(cwd);
    return true;
}

bool CProcess::SetCurrentDir(const char* path)
{
    if (!path || !*path)
        return false;
    return chdir(path) == 0;
}

int CProcess::GetProcessHandleCount(uint32_t, uint32_t& count)
{
    count = 1;
    return 0;
}

void CProcess::GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const char* field, unsigned unitSteps)
{
    tarvd::ReadProcStatusField(pid, field, unitSteps, value);
}

bool CProcess::GetProcessMemoryInfo(uint32_t pid, uint64_t& size, uint64_t& peak, uint64_t& swap, uint64_t& fourth,
                                    uint64_t& difference)
{
    size = peak = swap = fourth = difference = 0;
    uint64_t lib = 0;
    GetProcessMemorySpecificInfo(pid, peak, "VmPeak:", BYTES);
    GetProcessMemorySpecificInfo(pid, size, "VmSize:", BYTES);
    GetProcessMemorySpecificInfo(pid, swap, "VmSwap:", BYTES);
    GetProcessMemorySpecificInfo(pid, lib, "VmLib:", BYTES);
    difference = size - lib;
    return peak != 0 && size != 0;
}

bool CProcess::get_proc_file(uint32_t pid, const char* file, std::string& text)
{
    if (!file)
        return false;
    std::string path = ProcRoot() + "/" + std::to_string(pid) + "/" + file;
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return false;
    // A line longer than the limit is cut there; a NUL byte (the word
    // separator of cmdline) ends the text, as a line feed does.
    std::string content;
    if (tarvd::ReadFdBounded(fd.Get(), kProcLineLimit - 1, content) != 0)
        content.clear();
    text.assign(content, 0, content.find_first_of(std::string_view("\n\0", 2)));
    return true;
}

bool CProcess::GetProcessName(std::string& name, uint32_t pid) { return get_proc_file(pid, "comm", name); }

bool CProcess::GetProcessPath(std::string& path, uint32_t pid)
{
    std::string link = ProcRoot() + "/" + std::to_string(pid) + "/exe";
    char buf[PATH_MAX];
    ssize_t n = readlink(link.c_str(), buf, sizeof(buf) - 1);
    if (n > 0) {
        path.assign(buf, static_cast<size_t>(n));
        return true;
    }
    // No access to the link (another user's process, a kernel thread, a
    // captured tree): fall back to the first word of the command line,
    // whose words are separated by NULs.
    std::string cmdline;
    if (!get_proc_file(pid, "cmdline", cmdline))
        return false;
    std::string first(cmdline.c_str());
    if (first.empty())
        return false;
    path = first;
    return true;
}

bool CProcess::GetProcessInfo(uint32_t pid, std::string& name, std::string& path)
{
    bool haveName = GetProcessName(name, pid);
    bool havePath = GetProcessPath(path, pid);
    return haveName && havePath;
}

bool CProcess::FindProcess(uint32_t& pid, const char* name)
{
    pid = 0xFFFFFFFFu;
    UniqueDir dir(opendir(ProcRoot().c_str()));
    if (!dir || !name)
        return false;
    while (struct dirent* e = readdir(dir.Get())) {
        char* endp = nullptr;
        long id = strtol(e->d_name, &endp, 10);
        if (id < 1 || id > 0xFFFFFFFFL)
            continue;
        std::string comm;
        if (get_proc_file(static_cast<uint32_t>(id), "comm", comm) && comm == name) {
            pid = static_cast<uint32_t>(id);
            return true;
        }
    }
    return false;
}

