#include "TestSupport.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>

namespace testsupport {

TempDir::TempDir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/tarvd-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr)
        m_Path = buf.data();
}

TempDir::~TempDir()
{
    if (!m_Path.empty())
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
    auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        MakeDirs(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out)
        return false;
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::string();
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
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
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return lines;
}

std::string FixturesDir()
{
    return TARVD_FIXTURES_DIR;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_Name(name)
{
    if (const char* old = getenv(name)) {
        m_HadOld = true;
        m_Old = old;
    }
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
    if (geteuid() != 0)
        return false;
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0)
            _exit(1);
        _exit(0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace testsupport
