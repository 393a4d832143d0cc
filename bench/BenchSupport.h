// Small helpers of the benchmark program: a temporary directory, scoped
// environment variables and file contents.  No test framework here.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>

namespace benchsupport {

/// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
public:
    TempDir()
    {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/tarvd-bench-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            m_Path = pattern;
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!m_Path.empty())
            std::filesystem::remove_all(m_Path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string Sub(const std::string& name) const { return m_Path + "/" + name; }

private:
    std::string m_Path;
};

/// Sets (or, for null, unsets) an environment variable and restores it.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_Name(name)
    {
        if (const char* old = getenv(name))
            m_Old = old;
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv()
    {
        if (m_Old)
            setenv(m_Name.c_str(), m_Old->c_str(), 1);
        else
            unsetenv(m_Name.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_Name;
    std::optional<std::string> m_Old;
};

inline bool WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

inline std::string FixturesDir() { return TARVD_BENCH_FIXTURES_DIR; }

} // namespace benchsupport
