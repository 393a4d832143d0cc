#include "PackagingTestSupport.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace pkgtest {

namespace {
constexpr auto kTimeout = std::chrono::seconds(90);
}

std::string Quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

int Shell(const std::string& script, std::string* output)
{
    std::string cmd = "exec 2>&1\n" + script;
    FILE* pipe = popen(("sh -c " + Quote(cmd)).c_str(), "re");
    if (!pipe)
        return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        text.append(buffer, n);
    int status = pclose(pipe);
    if (output)
        *output = text;
    if (status < 0 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

pid_t SpawnInNamespace(const std::string& script, const std::string& outputFile)
{
    pid_t pid = fork();
    if (pid == 0) {
        int out = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (out < 0 || in < 0)
            _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        execlp("unshare", "unshare", "--mount", "--propagation", "private", "sh", "-ec", script.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

bool WaitUntil(const std::function<bool()>& done)
{
    auto end = std::chrono::steady_clock::now() + kTimeout;
    while (std::chrono::steady_clock::now() < end) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

int WaitExit(pid_t pid)
{
    int status = 0;
    if (!WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunInNamespace(const std::string& script, std::string* output)
{
    char name[] = "/tmp/pkgtest-out-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0)
        return -1;
    close(fd);
    int rc = WaitExit(SpawnInNamespace(script, name));
    if (output) {
        output->clear();
        if (FILE* f = fopen(name, "re")) {
            char buffer[4096];
            size_t n;
            while ((n = fread(buffer, 1, sizeof buffer, f)) > 0)
                output->append(buffer, n);
            fclose(f);
        }
    }
    unlink(name);
    return rc;
}

std::string PrivateSystemDirs(const std::string& stage)
{
    std::string s = Quote(stage);
    return "mount -t tmpfs -o mode=0755 tmpfs /run\n"
           "mkdir -p /run/lock && chmod 1777 /run/lock\n"
           "for d in /var/run /var/lock; do\n"
           "  case $(realpath $d) in /run*) ;; *) mount -t tmpfs -o mode=0755 tmpfs $d ;; esac\n"
           "done\n"
           "mount -t tmpfs -o mode=0755 tmpfs /var/log\n"
           "mkdir -p " + s + " && mount -t tmpfs -o mode=0700 tmpfs " + s + "\n"
           "mkdir -p " + s + "/etc-up " + s + "/etc-work\n"
           "mount -t overlay overlay -o lowerdir=/etc,upperdir=" + s + "/etc-up,workdir=" + s + "/etc-work /etc\n";
}

bool InstallInto(const std::string& destdir, std::string* output)
{
    std::string cmd = "DESTDIR=" + Quote(destdir) + " " + Quote(TEST_CMAKE_COMMAND) + " --install " +
                      Quote(TARVD_BINARY_DIR);
    return Shell(cmd, output) == 0;
}

} // namespace pkgtest
