#include "trace/CIniFile.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FileIO.h"
#include "common/UniqueHandle.h"
#include "trace/CDebug.h"

namespace {

/// Lines are handled in pieces of at most this many characters (with NUL).
constexpr size_t kLineSize = 1024;
/// Mode of a profile file created by a write.
constexpr mode_t kCreateMode = 0644;
/// A write reads the whole file into memory; a larger file is refused.
constexpr size_t kMaxProfileSize = 64u << 20;

bool IsSpace(char c)
{
    return isspace(static_cast<unsigned char>(c)) != 0;
}

/// Copies `text` cut to `size` - 1 characters; returns the length copied.
unsigned CopyCut(const char* text, char* buffer, unsigned size)
{
    size_t len = strlen(text);
    if (len > size - 1)
        len = size - 1;
    memcpy(buffer, text, len);
    buffer[len] = '\0';
    return static_cast<unsigned>(len);
}

/// A profile file held in memory for one write: read once, scanned line by
/// line, and rewritten from the changed line on with the rest taken from
/// the copy.  The file is written through its descriptor only.
struct ProfileImage {
    int fd;
    std::string text;
    size_t pos = 0;

    /// One physical line for the writer: the line feed is removed, at most
    /// kLineSize - 1 characters are kept and the rest of a longer line is
    /// passed over, so that every line start seen by the writer is a real
    /// one.  `start` and `next` get the offsets of this line and the one
    /// behind it.  False at the end of the file.
    bool NextLine(char (&line)[kLineSize], long& start, long& next)
    {
        if (pos >= text.size())
            return false;
        start = static_cast<long>(pos);
        const char* begin = text.data() + pos;
        const size_t avail = text.size() - pos;
        const auto* lf = static_cast<const char*>(memchr(begin, '\n', avail));
        const size_t len = lf ? static_cast<size_t>(lf - begin) : avail;
        const size_t kept = len < kLineSize - 1 ? len : kLineSize - 1;
        memcpy(line, begin, kept);
        line[kept] = '\0';
        pos += lf ? len + 1 : len;
        next = static_cast<long>(pos);
        return true;
    }

    /// Writes `data` at `offset` and cuts the file behind it.
    bool WriteAt(long offset, const std::string& data) const
    {
        if (lseek(fd, offset, SEEK_SET) != offset || !tarvd::WriteAll(fd, data.data(), data.size()))
            return false;
        return ftruncate(fd, offset + static_cast<off_t>(data.size())) == 0;
    }

    /// Rewrites the file from `dest` on: an optional newline, then key=value
    /// and a newline when both are given, then everything that stood from
    /// `src` to the end of the file; the file is cut behind it.
    bool WriteLines(long dest, long src, const char* key, const char* value, bool newlineFirst) const
    {
        std::string out;
        if (newlineFirst)
            out += '\n';
        if (key != nullptr && value != nullptr)
            out.append(key).append("=").append(value).append("\n");
        if (static_cast<size_t>(src) < text.size())
            out.append(text, static_cast<size_t>(src), std::string::npos);
        return WriteAt(dest, out);
    }

    /// Appends `added` at the end of the file, first closing a last line
    /// that lacks its line feed so that the new text starts a line of its
    /// own.
    bool Append(const std::string& added) const
    {
        std::string out = !text.empty() && text.back() != '\n' ? "\n" : "";
        out += added;
        return WriteAt(static_cast<long>(text.size()), out);
    }
};

bool CreateProfile(const char* section, const char* key, const char* value, const char* fileName)
{
    UniqueFile f(fopen(fileName, "ae"));
    if (!f) {
        DBG_PRINT(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n", strerror(errno));
        return false;
    }
    fchmod(fileno(f.Get()), kCreateMode);
    bool ok = fprintf(f.Get(), "\n[%s]\n\n%s=%s\n", section, key, value) >= 0;
    FILE* raw = f.Release();
    return fclose(raw) == 0 && ok;
}

/// Reads the whole profile for a write; false (traced) when it cannot be
/// read or is larger than a profile file can sensibly be.  Such a file is
/// left as it is rather than rewritten from a cut copy, which would lose
/// everything behind the cut.
bool ReadProfileImage(const char* fileName, ProfileImage& image)
{
    bool cut = false;
    int err = tarvd::ReadFdBounded(image.fd, kMaxProfileSize, image.text, &cut);
    if (err == 0 && !cut)
        return true;
    DBG_PRINT(1, "WritePrivateProfileString: ## WARNING: cannot read %s: %s\n", fileName,
              cut ? "file too large" : strerror(err));
    return false;
}

bool WriteProfile(const char* section, const char* key, const char* value, const char* fileName)
{
    UniqueFd fd(open(fileName, O_RDWR | O_CLOEXEC));
    if (!fd) {
        if (key == nullptr || value == nullptr)
            return true;
        return CreateProfile(section, key, value, fileName);
    }
    ProfileImage image{fd.Get(), std::string()};
    if (!ReadProfileImage(fileName, image))
        return false;
    const size_t sectionLen = strlen(section);
    const size_t keyLen = key ? strlen(key) : 0;
    char line[kLineSize];
    long start = 0;
    long next = 0;
    long sectionStart = -1;
    bool inSection = false;
    unsigned counted = 0;
    while (image.NextLine(line, start, next)) {
        if (line[0] == '\0' || line[0] == ';')
            continue;
        if (line[0] == '[') {
            if (inSection) {
                // The wanted section ends at this header.
                if (key != nullptr && value != nullptr)
                    return image.WriteLines(start, start, key, value, false);
                if (key == nullptr)
                    return image.WriteLines(sectionStart, start, nullptr, nullptr, false);
                return false;
            }
            if (strncmp(line + 1, section, sectionLen) == 0 && line[1 + sectionLen] == ']') {
                inSection = true;
                sectionStart = start;
                counted = 0;
            }
            continue;
        }
        if (!inSection)
            continue;
        ++counted;
        if (key == nullptr)
            continue;
        char* eq = strchr(line, '=');
        if (eq == nullptr)
            continue;
        char* keyEnd = eq;
        while (keyEnd > line && (keyEnd[-1] == ' ' || keyEnd[-1] == '\t'))
            --keyEnd;
        size_t len = static_cast<size_t>(keyEnd - line);
        if (len == keyLen && memcmp(line, key, len) == 0) {
            // The blank line that follows a header written by this function
            // stands before the first key; a rewrite of that key keeps one.
            return image.WriteLines(start, next, key, value, counted == 1);
        }
    }
    if (inSection) {
        if (key == nullptr)
            return ftruncate(fd.Get(), sectionStart) == 0;
        if (value == nullptr)
            return false;
        return image.Append(std::string(key) + "=" + value + "\n");
    }
    if (key == nullptr || value == nullptr)
        return false;
    return image.Append(std::string("\n[") + section + "]\n\n" + key + "=" + value + "\n");
}

} // namespace

namespace {

// Strips leading blanks, the comment after ';' and trailing blanks; null
// for a blank or comment line.
char* ProfileLineContent(char* line)
{
    char* p = line;
    while (*p != '\0' && IsSpace(*p))
        ++p;
    if (*p == '\0' || *p == ';')
        return nullptr;
    if (char* semi = strchr(p, ';'))
        *semi = '\0';
    size_t n = strlen(p);
    while (n > 0 && IsSpace(p[n - 1]))
        p[--n] = '\0';
    return p;
}

// What GetPrivateProfileString puts into the caller's buffer: one value, or
// a list of NUL-separated names (of sections or keys) ending in two NULs.
struct ProfileResult {
    char* buffer;
    unsigned size;
    long limit;  // a list stops here
    long stored = 0;
    bool filled = false;

    ProfileResult(char* b, unsigned s) : buffer(b), size(s), limit(static_cast<long>(s) - 2) {}

    void AppendName(const char* name)
    {
        size_t len = strlen(name);
        for (size_t i = 0; i <= len; ++i) {
            if (stored >= limit) {
                filled = true;
                return;
            }
            buffer[stored++] = name[i];
        }
        if (stored >= limit)
            filled = true;
    }

    void TakeValue(char* value)
    {
        while (*value != '\0' && IsSpace(*value))
            ++value;
        size_t len = strlen(value);
        if (len >= size - 1) {
            memcpy(buffer, value, size - 1);
            buffer[size - 1] = '\0';
            stored = static_cast<long>(size) - 1;
            filled = true;
        } else {
            memcpy(buffer, value, len + 1);
            stored = static_cast<long>(len);
        }
    }

    // The length returned for what was stored (stored > 0).
    unsigned Finish(bool list)
    {
        if (list) {
            if (filled) {
                buffer[size - 2] = '\0';
                buffer[size - 1] = '\0';
                return size - 2;
            }
            buffer[stored] = '\0';
            return static_cast<unsigned>(stored);
        }
        if (filled)
            return size - 1;
        if (static_cast<unsigned long>(stored) + 1 < size)
            buffer[stored + 1] = '\0';
        return static_cast<unsigned>(stored);
    }
};

// Reads the file line by line into `out`.  Ends at the end of the wanted
// section, when the key was found or when a list is full.
void ScanProfile(FILE* f, const char* section, const char* key, ProfileResult& out)
{
    const size_t sectionLen = section ? strlen(section) : 0;
    bool inSection = false;
    char line[kLineSize];
    while (out.stored < out.limit && fgets(line, sizeof line, f) != nullptr) {
        char* p = ProfileLineContent(line);
        if (p == nullptr)
            continue;
        if (*p == '[') {
            if (inSection)
                break;
            if (section == nullptr) {
                if (char* close = strchr(p, ']')) {
                    *close = '\0';
                    out.AppendName(p + 1);
                }
                continue;
            }
            if (strncmp(p + 1, section, sectionLen) == 0 && p[1 + sectionLen] == ']')
                inSection = true;
            continue;
        }
        char* eq = inSection ? strchr(p, '=') : nullptr;
        if (eq == nullptr)
            continue;
        char* keyEnd = eq;
        while (keyEnd > p && IsSpace(keyEnd[-1]))
            --keyEnd;
        *keyEnd = '\0';
        if (key == nullptr) {
            out.AppendName(p);
            continue;
        }
        if (strcmp(p, key) != 0)
            continue;
        out.TakeValue(eq + 1);
        break;
    }
}

} // namespace

unsigned GetPrivateProfileString(const char* section, const char* key, const char* defaultValue, char* buffer,
                                 unsigned size, const char* fileName)
{
    if (buffer == nullptr || fileName == nullptr || size == 0)
        return 0;
    buffer[0] = '\0';
    const bool allGiven = section != nullptr && key != nullptr && defaultValue != nullptr;
    UniqueFile f(fopen(fileName, "re"));
    if (!f) {
        DBG_PRINT(4, "GetPrivateProfileString: Cannot open %s\n", fileName);
        return allGiven ? CopyCut(defaultValue, buffer, size) : 0;
    }
    ProfileResult out(buffer, size);
    ScanProfile(f.Get(), section, key, out);
    if (out.stored > 0)
        return out.Finish(section == nullptr || key == nullptr);
    if (size > 1)
        buffer[1] = '\0';
    return allGiven ? CopyCut(defaultValue, buffer, size) : 0;
}

bool WritePrivateProfileString(const char* section, const char* key, const char* value, const char* fileName)
{
    if (section == nullptr) {
        DBG_PRINT(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
        return false;
    }
    if (fileName == nullptr) {
        DBG_PRINT(4, "WritePrivateProfileString: ## WARNING: invalid pointer to FileName\n");
        return false;
    }
    DBG_PRINT(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, key ? key : "<nil>",
              value ? value : "<nil>", fileName);
    bool rc = WriteProfile(section, key, value, fileName);
    DBG_PRINT(4, "WritePrivateProfileString rc=0x%04x\n", rc ? 1u : 0u);
    return rc;
}

// ---------------------------------------------------------------------------

CIniFile::~CIniFile()
{
    free(m_pFileName);
    free(m_pStringBuffer);
    free(m_pEnumBuffer);
}

void CIniFile::SetFilename(const char* name)
{
    free(m_pFileName);
    m_pFileName = name ? strdup(name) : nullptr;
}

const char* CIniFile::GetFileName() const
{
    return m_pFileName ? m_pFileName : "";
}

bool CIniFile::Open(bool check)
{
    m_bOpen = false;
    if (m_pFileName == nullptr)
        return false;
    if (!check) {
        m_bOpen = true;
        return true;
    }
    UniqueFile f(fopen(m_pFileName, "re"));
    m_bOpen = static_cast<bool>(f);
    return m_bOpen;
}

bool CIniFile::Open(const char* name, bool check)
{
    SetFilename(name);
    return Open(check);
}

bool CIniFile::ReadGrowing(const char* section, const char* key, const char* defaultValue, char*& buffer,
                           unsigned& size)
{
    for (;;) {
        if (buffer == nullptr) {
            buffer = static_cast<char*>(malloc(size));
            if (buffer == nullptr)
                break;
        }
        unsigned n = GetPrivateProfileString(section, key, defaultValue, buffer, size, m_pFileName);
        if (n != size - 1 && n != size - 2)
            return true;
        // The result may have been cut: read again with a larger buffer.
        if (size + kBufferStep > kBufferLimit)
            break;
        char* grown = static_cast<char*>(realloc(buffer, size + kBufferStep));
        if (grown == nullptr)
            break;
        buffer = grown;
        size += kBufferStep;
    }
    free(buffer);
    buffer = nullptr;
    size = kBufferStep;
    return false;
}

const char* CIniFile::GetString(const char* section, const char* key, const char* defaultValue)
{
    if (!m_bOpen || m_pFileName == nullptr)
        return defaultValue;
    if (!ReadGrowing(section, key, defaultValue, m_pStringBuffer, m_StringBufferSize))
        return defaultValue;
    return m_pStringBuffer;
}

bool CIniFile::GetString(std::string& result, const char* section, const char* key, const char* defaultValue)
{
    if (!m_bOpen || m_pFileName == nullptr) {
        result = defaultValue ? defaultValue : "";
        return false;
    }
    char* buffer = nullptr;
    unsigned size = kBufferStep;
    if (!ReadGrowing(section, key, defaultValue, buffer, size)) {
        result = defaultValue ? defaultValue : "";
        return false;
    }
    result = buffer;
    free(buffer);
    return true;
}

unsigned CIniFile::GetNumber(const char* section, const char* key, unsigned defaultValue)
{
    if (!m_bOpen || m_pFileName == nullptr || section == nullptr || key == nullptr)
        return defaultValue;
    char buffer[32];
    if (GetPrivateProfileString(section, key, nullptr, buffer, sizeof buffer, m_pFileName) == 0 || buffer[0] == '\0')
        return defaultValue;
    return static_cast<unsigned>(strtoul(buffer, nullptr, 0));
}

const char* CIniFile::GetEnum(const char* section)
{
    m_pEnumCursor = nullptr;
    if (!m_bOpen || m_pFileName == nullptr)
        return "";
    if (!ReadGrowing(section, nullptr, nullptr, m_pEnumBuffer, m_EnumBufferSize))
        return "";
    m_pEnumCursor = m_pEnumBuffer;
    return m_pEnumCursor;
}

const char* CIniFile::GetNextEnum()
{
    if (!m_bOpen || m_pEnumCursor == nullptr)
        return "";
    // The list ends with an empty name; the cursor stays on it.
    if (*m_pEnumCursor != '\0')
        m_pEnumCursor += strlen(m_pEnumCursor) + 1;
    return m_pEnumCursor;
}

bool CIniFile::GetSections(std::vector<std::string>& sections)
{
    bool any = false;
    for (const char* name = GetEnum(nullptr); *name != '\0'; name = GetNextEnum()) {
        sections.emplace_back(name);
        any = true;
    }
    return any;
}

bool CIniFile::GetEnums(std::vector<std::string>& keys, const char* section)
{
    if (section == nullptr)
        return false;
    bool any = false;
    for (const char* name = GetEnum(section); *name != '\0'; name = GetNextEnum()) {
        keys.emplace_back(name);
        any = true;
    }
    return any;
}

bool CIniFile::SetString(const char* section, const char* key, const char* value)
{
    if (!m_bOpen || m_pFileName == nullptr || section == nullptr)
        return false;
    return WritePrivateProfileString(section, key, value, m_pFileName);
}

bool CIniFile::SetNumber(const char* section, const char* key, unsigned value)
{
    if (!m_bOpen || m_pFileName == nullptr || section == nullptr || key == nullptr)
        return false;
    char text[16];
    snprintf(text, sizeof text, "%u", value);
    return WritePrivateProfileString(section, key, text, m_pFileName);
}

bool CIniFile::SetNumber(const char* section, const char* key, int value)
{
    if (!m_bOpen || m_pFileName == nullptr || section == nullptr || key == nullptr)
        return false;
    char text[16];
    snprintf(text, sizeof text, "%d", value);
    return WritePrivateProfileString(section, key, text, m_pFileName);
}

bool CIniFile::DeleteSection(const char* section)
{
    if (!m_bOpen)
        return false;
    return WritePrivateProfileString(section, nullptr, nullptr, m_pFileName);
}

bool CIniFile::DeleteKey(const char* section, const char* key)
{
    if (!m_bOpen)
        return false;
    return WritePrivateProfileString(section, key, nullptr, m_pFileName);
}

bool CIniFile::CopySection(const char* from, const char* to)
{
    std::vector<std::string> keys;
    if (m_bOpen && GetEnums(keys, from)) {
        for (const std::string& key : keys) {
            std::string value;
            GetString(value, from, key.c_str(), "");
            SetString(to, key.c_str(), value.c_str());
        }
    }
    return m_bOpen;
}

void CIniFile::Flush()
{
    // Nothing is cached, so there is nothing to write.
    if (m_bOpen)
        DBG_PRINT(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
}
