#include "support/ChildProcess.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

namespace {

const char* const kTraceVariables[] = {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_DEBUG_LEVEL", "TR_LOG_FILE_DIR",
                                       "TR_LOG_RINGBUF_DIR",    "TR_LOG_FILE_MAX_SIZE", "TR_LOG_RINGBUF_WEIGHT",
                                       "TR_LOG_NOHDR_TOSDTERR", "TraceFileLimit"};

pid_t Spawn(const std::string& program, const std::vector<std::string>& args, int& outFd, int& errFd)
{
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return -1;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return -1;
    }
    std::vector<std::string> argStore;
    argStore.push_back(program);
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0)
            dup2(devnull, 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (const char* v : kTraceVariables)
            unsetenv(v);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]);
        close(err[0]);
        return -1;
    }
    outFd = out[0];
    errFd = err[0];
    return pid;
}

// Reads from both pipes what arrives within waitMs; false when both are closed.
bool Pump(int& outFd, int& errFd, std::string& out, std::string& err, int waitMs)
{
    struct pollfd p[2];
    int n = 0;
    if (outFd >= 0)
        p[n++] = {outFd, POLLIN, 0};
    if (errFd >= 0)
        p[n++] = {errFd, POLLIN, 0};
    if (n == 0)
        return false;
    if (poll(p, static_cast<nfds_t>(n), waitMs) <= 0)
        return true;
    for (int i = 0; i < n; ++i) {
        if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        char buf[65536];
        ssize_t r = read(p[i].fd, buf, sizeof buf);
        bool isOut = p[i].fd == outFd;
        if (r > 0) {
            (isOut ? out : err).append(buf, static_cast<size_t>(r));
        } else if (r == 0 || errno != EINTR) {
            close(p[i].fd);
            (isOut ? outFd : errFd) = -1;
        }
    }
    return true;
}

void Reap(pid_t pid, RunResult& r)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        r.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.signal = WTERMSIG(status);
}

} // namespace

RunResult Run(const std::string& program, const std::vector<std::string>& args, std::chrono::seconds timeout)
{
    RunResult r;
    int outFd = -1, errFd = -1;
    pid_t pid = Spawn(program, args, outFd, errFd);
    if (pid < 0) {
        r.err = "cannot start " + program;
        return r;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Pump(outFd, errFd, r.out, r.err, 100)) {
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
    }
    if (outFd >= 0)
        close(outFd);
    if (errFd >= 0)
        close(errFd);
    Reap(pid, r);
    return r;
}

Child::Child(const std::string& program, const std::vector<std::string>& args)
{
    m_Pid = Spawn(program, args, m_OutFd, m_ErrFd);
}

Child::~Child()
{
    if (m_Pid > 0) {
        kill(m_Pid, SIGKILL);
        RunResult ignored;
        Reap(m_Pid, ignored);
    }
    if (m_OutFd >= 0)
        close(m_OutFd);
    if (m_ErrFd >= 0)
        close(m_ErrFd);
}

void Child::ReadAvailable(int waitMs) { Pump(m_OutFd, m_ErrFd, m_Out, m_Err, waitMs); }

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_Out.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline || (m_OutFd < 0 && m_ErrFd < 0))
            return false;
        ReadAvailable(50);
    }
    return true;
}

RunResult Child::Stop(int sig, std::chrono::milliseconds timeout)
{
    RunResult r;
    if (m_Pid <= 0)
        return r;
    kill(m_Pid, sig);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_OutFd >= 0 || m_ErrFd >= 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(m_Pid, SIGKILL);
            break;
        }
        ReadAvailable(50);
    }
    Reap(m_Pid, r);
    m_Pid = -1;
    r.out = m_Out;
    r.err = m_Err;
    return r;
}

} // namespace testsupport
