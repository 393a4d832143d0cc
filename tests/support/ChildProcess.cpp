#include "support/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

namespace {

const char* const kTraceVariables[] = {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_DEBUG_LEVEL", "TR_LOG_FILE_DIR",
                                       "TR_LOG_RINGBUF_DIR",    "TR_LOG_FILE_MAX_SIZE", "TR_LOG_RINGBUF_WEIGHT",
                                       "TR_LOG_NOHDR_TOSDTERR", "TraceFileLimit"};

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

Child::Child(const std::string& program, const std::vector<std::string>& args)
{
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    std::vector<std::string> argStore{program};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    m_Pid = fork();
    if (m_Pid == 0) {
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
    m_Fds[0] = out[0];
    m_Fds[1] = err[0];
}

Child::~Child()
{
    if (m_Pid > 0) {
        kill(m_Pid, SIGKILL);
        RunResult ignored;
        Reap(m_Pid, ignored);
    }
    for (int fd : m_Fds)
        if (fd >= 0)
            close(fd);
}

// Reads from both pipes what arrives within waitMs; false when both are closed.
bool Child::Pump(int waitMs)
{
    struct pollfd p[2];
    nfds_t n = 0;
    for (int fd : m_Fds)
        if (fd >= 0)
            p[n++] = {fd, POLLIN, 0};
    if (n == 0)
        return false;
    if (poll(p, n, waitMs) <= 0)
        return true;
    for (nfds_t i = 0; i < n; ++i) {
        if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        int which = p[i].fd == m_Fds[0] ? 0 : 1;
        char buf[65536];
        ssize_t r = read(p[i].fd, buf, sizeof buf);
        if (r > 0) {
            (which == 0 ? m_Out : m_Err).append(buf, static_cast<size_t>(r));
        } else if (r == 0 || errno != EINTR) {
            close(p[i].fd);
            m_Fds[which] = -1;
        }
    }
    return true;
}

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_Out.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline || !Pump(50))
            return false;
    }
    return true;
}

RunResult Child::Finish(std::chrono::milliseconds timeout)
{
    RunResult r;
    if (m_Pid <= 0)
        return r;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Pump(50)) {
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(m_Pid, SIGKILL);
            break;
        }
    }
    Reap(m_Pid, r);
    m_Pid = -1;
    r.out = m_Out;
    r.err = m_Err;
    return r;
}

RunResult Child::Stop(int sig, std::chrono::milliseconds timeout)
{
    if (m_Pid > 0)
        kill(m_Pid, sig);
    return Finish(timeout);
}

RunResult Run(const std::string& program, const std::vector<std::string>& args, std::chrono::seconds timeout)
{
    Child child(program, args);
    if (!child.Started()) {
        RunResult r;
        r.err = "cannot start " + program;
        return r;
    }
    return child.Finish(timeout);
}

std::string Quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

int Shell(const std::string& script, std::string* output, std::chrono::seconds timeout)
{
    RunResult r = Run("/bin/sh", {"-c", "exec 2>&1\n" + script}, timeout);
    if (output)
        *output = r.out + r.err;
    return r.signal == 0 && !r.timedOut ? r.exitCode : -1;
}

} // namespace testsupport
