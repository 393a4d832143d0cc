// CDebugTraceConfigFile: one section of one trace configuration file, read
// whole into memory and cut up in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

struct dirent;

/// The listing of the trace configuration directory.
class CDirectoryList {
public:
    /// The scandir(3) filter of the listing: accepts every entry whose name
    /// contains ".ini" anywhere ("kopd.ini", but also "old.ini.bak").
    static int SelectFilesInDir(const struct dirent* entry);
};

class CDebugTraceConfigFile {
public:
    /// Longest value taken from a line (the directory value has its own limit).
    static constexpr size_t kValueLimit = 64;
    static constexpr size_t kDirectoryLimit = 256;
    /// Files larger than this are not trace configuration files.
    static constexpr uint64_t kFileSizeLimit = 1u << 20;

    /// Opens `section` (compared without regard to case) of the file.  When
    /// no path is recorded yet it is built from `dir` + "/" + `file` and
    /// stat'ed; when a path is recorded, `file` and `dir` are ignored and the
    /// caller has just stat'ed it (size and time are kept).  The file is
    /// accepted only when its last section header is "EndOfFile".
    /// @return true when the section was found; on failure everything is
    ///         closed (path, size and time cleared).
    bool OpenSectionInIniFile(const char* section, const char* file, const char* dir);
    /// Frees the text and clears path, size and time.
    void CloseSectionInIniFile();

    /// Finds `key` as a substring of the open section (first occurrence,
    /// case-sensitive, also inside a longer word), takes the text after the
    /// next '=' (white space skipped) up to a newline, at most `limit`
    /// characters.  false when no section is open, the key or its '=' is
    /// missing; `value` is unchanged then.
    bool ReadValue(const char* key, std::string& value, size_t limit = kValueLimit) const;
    /// ReadValue converted with strtoul base 0; false (number unchanged) when absent.
    bool ReadNumber(const char* key, unsigned long& number) const;

    bool IsOpen() const { return m_SectionStart != nullptr; }
    const std::string& Path() const { return m_Path; }
    uint64_t Size() const { return m_FileSize; }
    time_t ModificationTime() const { return m_ModTime; }
    /// Records a new size and time (after the caller's stat).
    void SetStat(uint64_t size, time_t mtime)
    {
        m_FileSize = size;
        m_ModTime = mtime;
    }

private:
    static char* CutAtEndOfFile(char* begin, char* end);
    bool FindSection(char* begin, char* end, const char* section);

    std::vector<char> m_Text;
    char* m_SectionStart = nullptr;
    char* m_SectionEnd = nullptr;
    std::string m_Path;
    uint64_t m_FileSize = 0;
    time_t m_ModTime = 0;
};
