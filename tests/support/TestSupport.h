// Helpers shared by all test programs.
#pragma once

#include <string>
#include <unistd.h>
#include <vector>

namespace testsupport {

/// A temporary directory, removed with its contents on destruction (by the process that made it).
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string Sub(const std::string& name) const { return m_Path + "/" + name; }

private:
    std::string m_Path;
    pid_t m_Owner = getpid();
};

/// Writes `content` to `path` (creating parent directories); true on success.
bool WriteFile(const std::string& path, const std::string& content);
/// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
bool MakeDirs(const std::string& path);  // mkdir -p
void RemoveTree(const std::string& path);
/// Splits text at '\n' (the final empty piece after a trailing newline is dropped).
std::vector<std::string> SplitLines(const std::string& text);
std::string FixturesDir();  ///< the shared firmware fixtures directory

/// Sets an environment variable (null: unsets it) for the object's lifetime.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);  // value null: unset
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_Name;
    std::string m_Old;
    bool m_HadOld = false;
};

/// True when the process runs as root and can make a private mount
/// namespace (for end-to-end tests of the daemon).
bool CanUseMountNamespace();

} // namespace testsupport
