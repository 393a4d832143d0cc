#include "TestSupport.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace testsupport {

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/tarvd-test-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr)
        m_Path = pattern;
}

TempDir::~TempDir()
{
    // Only the process that made it: a forked child leaving through the
    // test's scope must not take the directory from its parent.
    if (!m_Path.empty() && getpid() == m_Owner)
        RemoveTree(m_Path);
}

bool MakeDirs(const std::string& path)
{
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    return !ec || std::filesystem::is_directory(path);
}

bool WriteFile(const std::string& path, const std::string& content)
{
    if (auto slash = path.rfind('/'); slash != std::string::npos && slash > 0)
        MakeDirs(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return out && out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool FileExists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void RemoveTree(const std::string& path)
{
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t start = 0, nl; start < text.size(); start = nl + 1) {
        nl = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, nl - start));
    }
    return lines;
}

std::string FixturesDir() { return TARVD_FIXTURES_DIR; }

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_Name(name)
{
    const char* old = getenv(name);
    m_HadOld = old != nullptr;
    m_Old = old ? old : "";
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv()
{
    if (m_HadOld)
        setenv(m_Name.c_str(), m_Old.c_str(), 1);
    else
        unsetenv(m_Name.c_str());
}

bool CanUseMountNamespace()
{
    pid_t pid = geteuid() == 0 ? fork() : -1;
    if (pid == 0)
        _exit(unshare(CLONE_NEWNS) == 0 ? 0 : 1);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace testsupport
