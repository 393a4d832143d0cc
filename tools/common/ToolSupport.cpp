#include "tools/common/ToolSupport.h"

#include "tools/common/JsonWriter.h"

#include "common/FileIO.h"
#include "common/UniqueHandle.h"
#include "trace/CDebug.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

extern CDebug Debug;

namespace tools {

namespace {
std::string g_Name = "tool";
std::string g_FirstError;

// `isError`: the message of a failure (kept as the run's first error).
void VMessage(const char* prefix, bool isError, const char* format, va_list args)
{
    std::string text = g_Name + ": " + prefix;
    char buf[2048];
    vsnprintf(buf, sizeof buf, format, args);
    if (isError && g_FirstError.empty())
        g_FirstError = buf;
    text += buf;
    text += '\n';
    fflush(stdout);
    fputs(text.c_str(), stderr);
}
} // namespace

void ToolInit(const char* name)
{
    g_Name = name;
    const char* level = getenv("TR_LOG_DEBUG_LEVEL");
    if (level != nullptr && *level != '\0')
        Debug.Init(name);
}

const char* ToolName() { return g_Name.c_str(); }

int Fail(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VMessage("", true, format, args);
    va_end(args);
    return kExitFailure;
}

void Warn(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VMessage("warning: ", false, format, args);
    va_end(args);
}

int PrintVersion()
{
    printf("%s (tarvd) %s\n", g_Name.c_str(), TARVD_VERSION_TEXT);
    return kExitOk;
}

int UsageError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VMessage("", true, format, args);
    va_end(args);
    fprintf(stderr, "Try '%s --help' for more information.\n", g_Name.c_str());
    return kExitUsage;
}

const std::string& FirstError() { return g_FirstError; }

void PrintJsonError(std::ostream& out, std::string_view message)
{
    out << "{\"error\": " << CJsonWriter::Quote(message) << "}\n";
    out.flush();
}

bool HasOption(int argc, char** argv, const char* option)
{
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i)
        if (strcmp(argv[i], option) == 0)
            return true;
    return false;
}

bool ReadInputFile(const std::string& path, size_t limit, std::string& out)
{
    out.clear();
    UniqueFd owned;
    int fd = STDIN_FILENO;
    if (path != "-") {
        owned.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
        if (!owned)
            return false;
        fd = owned.Get();
        struct stat st {};
        if (fstat(fd, &st) != 0)
            return false;
        if (!S_ISREG(st.st_mode)) {
            errno = S_ISDIR(st.st_mode) ? EISDIR : ENODEV;
            return false;
        }
    }
    bool cut = false;
    if (int err = tarvd::ReadFdBounded(fd, limit, out, &cut)) {
        errno = err;
        return false;
    }
    if (cut) {
        errno = EFBIG;
        return false;
    }
    return true;
}

bool ReadFileBounded(const std::string& path, size_t limit, std::string& out)
{
    if (int err = tarvd::ReadFileBounded(path.c_str(), limit, out)) {
        errno = err;
        return false;
    }
    return true;
}

bool WriteWholeFile(const std::string& path, const std::string& content)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return fd && tarvd::WriteAll(fd.Get(), content.data(), content.size());
}

bool MakeDirectories(const std::string& path)
{
    if (path.empty())
        return false;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        std::string part = path.substr(0, pos);
        if (part.empty())
            continue;
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ParseUnsigned(const char* text, unsigned long long max, unsigned long long& value, bool allowHex)
{
    if (text == nullptr || *text == '\0' || *text == '-' || *text == '+' || *text == ' ')
        return false;
    int base = 10;
    if (allowHex && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
        if (*text == '\0')
            return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text, &end, base);
    if (errno != 0 || end == text || *end != '\0' || v > max)
        return false;
    value = v;
    return true;
}

} // namespace tools
