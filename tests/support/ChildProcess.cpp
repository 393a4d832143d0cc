#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

} // namespace

Child::Child(const std::string& program, const std::vector<std::string>& args)
{
    int pipes[2][2] = {{-1, -1}, {-1, -1}};
    std::vector<std::string> argStore{program};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv = CStrings(argStore);
    if (pipe2(pipes[0], O_CLOEXEC) == 0 && pipe2(pipes[1], O_CLOEXEC) == 0 && (m_Pid = fork()) == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(pipes[0][1], 1);
        dup2(pipes[1][1], 2);
        for (const char* v : kTraceVariables)
            unsetenv(v);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    for (int i = 0; i < 2; ++i) {  // the read ends, even without a child: closed at destruction
        close(pipes[i][1]);
        m_Fds[i] = pipes[i][0];
    }
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
    if (n == 0 || poll(p, n, waitMs) <= 0)
        return n != 0;
    for (nfds_t i = 0; i < n; ++i) {
        int which = p[i].fd == m_Fds[0] ? 0 : 1;
        char buf[65536];
        ssize_t r = p[i].revents ? read(p[i].fd, buf, sizeof buf) : -1;
        if (r > 0)
            (which == 0 ? m_Out : m_Err).append(buf, static_cast<size_t>(r));
        else if (p[i].revents && (r == 0 || errno != EINTR)) {
            close(p[i].fd);
            m_Fds[which] = -1;
        }
    }
    return true;
}

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_Out.find(text) == std::string::npos)
        if (std::chrono::steady_clock::now() > deadline || !Pump(50))
            return false;
    return true;
}

RunResult Child::Finish(std::chrono::milliseconds timeout)
{
    RunResult r;
    if (m_Pid <= 0)
        return r;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Pump(50) && !(r.timedOut = std::chrono::steady_clock::now() > deadline)) {
    }
    if (r.timedOut)
        kill(m_Pid, SIGKILL);
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
    bool started = child.Started();
    RunResult r = child.Finish(timeout);
    if (!started)
        r.err = "cannot start " + program;
    return r;
}

std::vector<char*> CStrings(std::vector<std::string>& strings)
{
    std::vector<char*> pointers(strings.size() + 1, nullptr);
    std::transform(strings.begin(), strings.end(), pointers.begin(), [](std::string& s) { return s.data(); });
    return pointers;
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

std::string ShellOk(const std::string& script)
{
    std::string out;
    EXPECT_EQ(Shell(script, &out), 0) << script << "\n" << out;
    return out;
}

} // namespace testsupport
