#include "support/Sandbox.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ChildProcess.h"

namespace testsupport {

namespace {

std::string Failed(const std::string& what) { return what + ": " + strerror(errno); }

/// An overlay on `dir` whose upper layer lies in `stage`; empty or the failure.
std::string Overlay(const std::string& stage, const std::string& dir, const std::string& lower)
{
    std::string up = stage + dir.substr(dir.rfind('/')) + "-up", work = stage + dir.substr(dir.rfind('/')) + "-work";
    mkdir(up.c_str(), 0755);
    mkdir(work.c_str(), 0755);
    std::string options = "lowerdir=" + lower + ",upperdir=" + up + ",workdir=" + work;
    return mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) == 0 ? "" : Failed("overlay on " + dir);
}

/// Own /run, /run/lock, /var/run, /var/lock and /var/log.  On Debian
/// /var/run and /var/lock lead into /run; elsewhere they get a tmpfs.
std::string PrivateRunAndLog()
{
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0)
        return Failed("tmpfs on /run");
    mkdir("/run/lock", 01777);
    chmod("/run/lock", 01777);
    for (const char* dir : {"/var/run", "/var/lock"}) {
        char resolved[PATH_MAX];
        if (realpath(dir, resolved) && strncmp(resolved, "/run", 4) != 0 &&
            mount("tmpfs", dir, "tmpfs", 0, "mode=0755") != 0)
            return Failed(std::string("tmpfs on ") + dir);
    }
    return mount("tmpfs", "/var/log", "tmpfs", 0, "mode=0755") == 0 ? "" : Failed("tmpfs on /var/log");
}

std::string Prepare(const std::string& stage, const SandboxOptions& options)
{
    if (unshare(CLONE_NEWNS) != 0)
        return Failed("unshare(CLONE_NEWNS)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Failed("make / private");
    if (mkdir(stage.c_str(), 0700) != 0 || mount("tmpfs", stage.c_str(), "tmpfs", 0, "mode=0700") != 0)
        return Failed("tmpfs on " + stage);
    for (const std::string& dir : options.writable)
        if (std::string e = Overlay(stage, dir, dir); !e.empty())
            return e;
    // A whiteout in the upper layer hides the file.
    if (options.hideSystemctl && (mkdir((stage + "/bin-up").c_str(), 0755) != 0 ||
                                  mknod((stage + "/bin-up/systemctl").c_str(), S_IFCHR | 0, makedev(0, 0)) != 0))
        return Failed("whiteout for systemctl");
    if (std::string e = options.hideSystemctl ? Overlay(stage, "/usr/bin", "/usr/bin") : ""; !e.empty())
        return e;
    if (std::string e = PrivateRunAndLog(); !e.empty())
        return e;
    if (mkdir("/etc/tarvd", 0755) != 0 && errno != EEXIST)
        return Failed("mkdir /etc/tarvd");
    return {};
}

} // namespace

Sandbox::Sandbox(const std::string& stage, const SandboxOptions& options)
{
    int ready[2], control[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(control, O_CLOEXEC) != 0) {
        m_Error = "pipe";
        return;
    }
    m_Holder = fork();
    if (m_Holder == 0) {
        close(control[1]);  // the holder lives until the test closes its end
        std::string error = Prepare(stage, options);
        std::string answer = error.empty() ? "1" : "0" + error;
        (void)!write(ready[1], answer.data(), answer.size());
        close(ready[1]);
        char c;
        while (read(control[0], &c, 1) > 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    close(control[0]);
    m_Control.Reset(control[1]);
    char buffer[512] = {};
    ssize_t n = m_Holder > 0 ? read(ready[0], buffer, sizeof buffer - 1) : -1;
    close(ready[0]);
    if (n <= 0)
        m_Error = "namespace holder died";
    else if (buffer[0] != '1')
        m_Error = buffer + 1;
}

Sandbox::~Sandbox()
{
    m_Control.Reset();  // ends the holder
    if (m_Holder > 0)
        waitpid(m_Holder, nullptr, 0);
}

pid_t Sandbox::Spawn(const SandboxProgram& launch) const
{
    std::string nsFile = "/proc/" + std::to_string(m_Holder) + "/ns/mnt";
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int ns = open(nsFile.c_str(), O_RDONLY | O_CLOEXEC);
    int out = open(launch.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (ns < 0 || out < 0 || in < 0 || setns(ns, CLONE_NEWNS) != 0)
        _exit(120);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    if (chdir("/") != 0 || (launch.uid != 0 && setresuid(launch.uid, launch.uid, launch.uid) != 0))
        _exit(122);
    if (launch.gate >= 0) {
        // Only the gate's read end stays open: a write end of this or
        // another launch's gate kept here would hold it shut.
        if (dup2(launch.gate, 3) != 3)
            _exit(125);
        close_range(4, ~0U, 0);
        char c;
        for (ssize_t r; (r = read(3, &c, 1)) != 0 && !(r < 0 && errno != EINTR);) {
        }
        close(3);
    }
    std::vector<std::string> args{launch.program}, env = launch.env;
    args.insert(args.end(), launch.args.begin(), launch.args.end());
    execve(launch.program.c_str(), CStrings(args).data(), CStrings(env).data());
    _exit(124);
}

int Sandbox::RunScript(const std::string& script, const std::string& outputFile, std::string* output) const
{
    SandboxProgram l{"/bin/sh", {"-ec", script}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, outputFile};
    int rc = WaitExit(Spawn(l), std::chrono::minutes(5));
    if (output)
        *output = ReadFile(outputFile);
    return rc;
}

DatagramSink::DatagramSink(const std::string& address) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un addr{AF_UNIX, {}};
    memcpy(addr.sun_path, address.data(), std::min(address.size(), sizeof addr.sun_path));
    addr.sun_path[0] = address[0] == '@' ? '\0' : address[0];
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size() + (address[0] != '@'));
    bound = fd && bind(fd.Get(), reinterpret_cast<sockaddr*>(&addr), len) == 0;
}

std::string DatagramSink::Receive(int ms)
{
    pollfd p{fd.Get(), POLLIN, 0};
    char buffer[1024];
    ssize_t n = poll(&p, 1, ms) == 1 ? recv(fd.Get(), buffer, sizeof buffer, 0) : 0;
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

int WaitExit(pid_t pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    if (pid <= 0)
        return -1;
    bool ended = WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!ended && kill(pid, SIGKILL) == 0)
        waitpid(pid, &status, 0);
    return !ended ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<std::string> DaemonEnv(const std::string& traceDir)
{
    MakeDirs(traceDir);
    return {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TR_LOG_DEBUG_LEVEL=3", "TR_LOG_RINGBUF_DIR=" + traceDir,
            "TraceFileLimit=1", "TR_LOG_RINGBUF_WEIGHT=1", "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1"};
}

std::string ReadDaemonTrace(const std::string& traceDir, const std::string& name)
{
    std::string base = traceDir + "/log." + name, all = ReadFile(base + "_i") + ReadFile(base + "_a"), unpacked;
    if (FileExists(base + "_i.gz") && Shell("gzip -dc " + Quote(base + "_i.gz"), &unpacked) == 0)
        all += unpacked;
    return all;
}

} // namespace testsupport
