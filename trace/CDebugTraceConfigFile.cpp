#include "trace/CDebugTraceConfigFile.h"

#include "common/FileIO.h"
#include "trace/CDebugInternal.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

int CDirectoryList::SelectFilesInDir(const struct dirent* entry)
{
    return entry && strstr(entry->d_name, tracedetail::kIniFilter) != nullptr;
}

namespace {

constexpr const char* kEndOfFileSection = "EndOfFile";
constexpr size_t kTextSlack = 16;

} // namespace

void CDebugTraceConfigFile::CloseSectionInIniFile()
{
    std::vector<char>().swap(m_Text);
    m_SectionStart = nullptr;
    m_SectionEnd = nullptr;
    m_Path.clear();
    m_FileSize = 0;
    m_ModTime = 0;
}

bool CDebugTraceConfigFile::OpenSectionInIniFile(const char* section, const char* file, const char* dir)
{
    m_SectionStart = m_SectionEnd = nullptr;
    if (!section) {
        CloseSectionInIniFile();
        return false;
    }
    if (m_Path.empty()) {
        if (!file || !dir) {
            CloseSectionInIniFile();
            return false;
        }
        m_Path = std::string(dir) + "/" + file;
        struct stat st;
        if (stat(m_Path.c_str(), &st) != 0 || st.st_size < 0) {
            CloseSectionInIniFile();
            return false;
        }
        m_FileSize = static_cast<uint64_t>(st.st_size);
        m_ModTime = st.st_mtime;
    }
    if (m_FileSize > kFileSizeLimit) {
        CloseSectionInIniFile();
        return false;
    }

    // The whole file plus zeroed slack, so that the text is always NUL-terminated.
    std::string content;
    if (tarvd::ReadFileBounded(m_Path.c_str(), static_cast<size_t>(m_FileSize), content) != 0 ||
        content.size() != m_FileSize) {
        CloseSectionInIniFile();
        return false;
    }
    std::vector<char> text(content.size() + kTextSlack, '\0');
    memcpy(text.data(), content.data(), content.size());
    m_Text.swap(text);
    char* begin = m_Text.data();
    char* end = begin + m_FileSize; // NUL slack follows

    end = CutAtEndOfFile(begin, end);
    if (!end || !FindSection(begin, end, section)) {
        CloseSectionInIniFile();
        return false;
    }
    return true;
}

// The last section header must be [EndOfFile]; a file cut short by an
// interrupted copy would otherwise be taken for a valid one.  Returns where
// the text before that header ends (the header is cut off), or null.
char* CDebugTraceConfigFile::CutAtEndOfFile(char* begin, char* end)
{
    char* close = end;
    while (close > begin && *(close - 1) != ']')
        --close;
    if (close == begin)
        return nullptr;
    char* closeBracket = close - 1;
    *closeBracket = '\0';
    char* open = closeBracket;
    while (open > begin && *(open - 1) != '[')
        --open;
    if (open == begin)
        return nullptr;
    char* openBracket = open - 1;
    if (strcasecmp(open, kEndOfFileSection) != 0)
        return nullptr;
    *openBracket = '\0';
    return openBracket;
}

// Finds [section] (without regard to case) in [begin, end) and cuts the text
// at the next header.
bool CDebugTraceConfigFile::FindSection(char* begin, char* end, const char* section)
{
    const size_t sectionLen = strlen(section);
    for (char* p = begin; p < end; ++p) {
        if (*p != '[')
            continue;
        char* nameStart = p + 1;
        char* nameEnd = static_cast<char*>(memchr(nameStart, ']', static_cast<size_t>(end - nameStart)));
        if (!nameEnd)
            break;
        if (static_cast<size_t>(nameEnd - nameStart) == sectionLen && strncasecmp(nameStart, section, sectionLen) == 0) {
            m_SectionStart = nameEnd + 1;
            char* next = static_cast<char*>(memchr(m_SectionStart, '[', static_cast<size_t>(end - m_SectionStart)));
            m_SectionEnd = next ? next : end;
            *m_SectionEnd = '\0';
            return true;
        }
        p = nameEnd;
    }
    return false;
}

bool CDebugTraceConfigFile::ReadValue(const char* key, std::string& value, size_t limit) const
{
    if (!m_SectionStart || !key || !*key)
        return false;
    const char* found = strstr(m_SectionStart, key);
    if (!found)
        return false;
    const char* eq = strchr(found + strlen(key), '=');
    if (!eq)
        return false;
    const char* p = eq + 1;
    while (*p && isspace(static_cast<unsigned char>(*p)))
        ++p;
    const char* q = p;
    while (*q && *q != '\n' && static_cast<size_t>(q - p) < limit)
        ++q;
    value.assign(p, q);
    return true;
}

bool CDebugTraceConfigFile::ReadNumber(const char* key, unsigned long& number) const
{
    std::string text;
    if (!ReadValue(key, text))
        return false;
    number = strtoul(text.c_str(), nullptr, 0);
    return true;
}
