#include "ToolTestSupport.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tooltest {

namespace {

const char* const kTraceVariables[] = {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_DEBUG_LEVEL", "TR_LOG_FILE_DIR",
                                       "TR_LOG_RINGBUF_DIR",    "TR_LOG_FILE_MAX_SIZE", "TR_LOG_RINGBUF_WEIGHT",
                                       "TR_LOG_NOHDR_TOSDTERR", "TraceFileLimit"};

pid_t Spawn(const std::string& program, const std::vector<std::string>& args, int& outFd, int& errFd)
{
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return -1;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return -1;
    }
    std::vector<std::string> argStore;
    argStore.push_back(program);
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0)
            dup2(devnull, 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (const char* v : kTraceVariables)
            unsetenv(v);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]);
        close(err[0]);
        return -1;
    }
    outFd = out[0];
    errFd = err[0];
    return pid;
}

// Reads from both pipes what arrives within waitMs; false when both are closed.
bool Pump(int& outFd, int& errFd, std::string& out, std::string& err, int waitMs)
{
    struct pollfd p[2];
    int n = 0;
    if (outFd >= 0)
        p[n++] = {outFd, POLLIN, 0};
    if (errFd >= 0)
        p[n++] = {errFd, POLLIN, 0};
    if (n == 0)
        return false;
    if (poll(p, static_cast<nfds_t>(n), waitMs) <= 0)
        return true;
    for (int i = 0; i < n; ++i) {
        if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        char buf[65536];
        ssize_t r = read(p[i].fd, buf, sizeof buf);
        bool isOut = p[i].fd == outFd;
        if (r > 0) {
            (isOut ? out : err).append(buf, static_cast<size_t>(r));
        } else if (r == 0 || errno != EINTR) {
            close(p[i].fd);
            (isOut ? outFd : errFd) = -1;
        }
    }
    return true;
}

void Reap(pid_t pid, RunResult& r)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        r.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.signal = WTERMSIG(status);
}

} // namespace

RunResult Run(const std::string& program, const std::vector<std::string>& args, std::chrono::seconds timeout)
{
    RunResult r;
    int outFd = -1, errFd = -1;
    pid_t pid = Spawn(program, args, outFd, errFd);
    if (pid < 0) {
        r.err = "cannot start " + program;
        return r;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Pump(outFd, errFd, r.out, r.err, 100)) {
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
    }
    if (outFd >= 0)
        close(outFd);
    if (errFd >= 0)
        close(errFd);
    Reap(pid, r);
    return r;
}

Child::Child(const std::string& program, const std::vector<std::string>& args)
{
    m_Pid = Spawn(program, args, m_OutFd, m_ErrFd);
}

Child::~Child()
{
    if (m_Pid > 0) {
        kill(m_Pid, SIGKILL);
        RunResult ignored;
        Reap(m_Pid, ignored);
    }
    if (m_OutFd >= 0)
        close(m_OutFd);
    if (m_ErrFd >= 0)
        close(m_ErrFd);
}

void Child::ReadAvailable(int waitMs) { Pump(m_OutFd, m_ErrFd, m_Out, m_Err, waitMs); }

bool Child::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_Out.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline || (m_OutFd < 0 && m_ErrFd < 0))
            return false;
        ReadAvailable(50);
    }
    return true;
}

RunResult Child::Stop(int sig, std::chrono::milliseconds timeout)
{
    RunResult r;
    if (m_Pid <= 0)
        return r;
    kill(m_Pid, sig);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_OutFd >= 0 || m_ErrFd >= 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(m_Pid, SIGKILL);
            break;
        }
        ReadAvailable(50);
    }
    Reap(m_Pid, r);
    m_Pid = -1;
    r.out = m_Out;
    r.err = m_Err;
    return r;
}

// ---- JSON ------------------------------------------------------------------------

namespace {

class Parser {
public:
    explicit Parser(const std::string& t) : s(t) {}
    bool Document(Json& out)
    {
        Ws();
        if (!Value(out, 0))
            return false;
        Ws();
        return Fail(pos == s.size(), "trailing text");
    }
    std::string error;

private:
    const std::string& s;
    size_t pos = 0;

    bool Fail(bool ok, const char* what)
    {
        if (!ok && error.empty())
            error = std::string(what) + " at offset " + std::to_string(pos);
        return ok;
    }
    void Ws()
    {
        while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t' || s[pos] == '\n' || s[pos] == '\r'))
            ++pos;
    }
    bool Lit(const char* word)
    {
        size_t n = strlen(word);
        if (s.compare(pos, n, word) != 0)
            return Fail(false, "bad literal");
        pos += n;
        return true;
    }
    bool Value(Json& v, int depth)
    {
        if (!Fail(depth < 200, "too deep") || !Fail(pos < s.size(), "unexpected end"))
            return false;
        char c = s[pos];
        if (c == '{')
            return ObjectV(v, depth);
        if (c == '[')
            return ArrayV(v, depth);
        if (c == '"') {
            v.type = Json::String;
            return Str(v.text);
        }
        if (c == 't') {
            v.type = Json::Bool;
            v.boolean = true;
            return Lit("true");
        }
        if (c == 'f') {
            v.type = Json::Bool;
            return Lit("false");
        }
        if (c == 'n') {
            v.type = Json::Null;
            return Lit("null");
        }
        return Num(v);
    }
    bool Num(Json& v)
    {
        size_t start = pos;
        if (pos < s.size() && s[pos] == '-')
            ++pos;
        if (pos >= s.size() || !isdigit(static_cast<unsigned char>(s[pos])))
            return Fail(false, "bad number");
        if (s[pos] == '0')
            ++pos;
        else
            while (pos < s.size() && isdigit(static_cast<unsigned char>(s[pos])))
                ++pos;
        if (pos < s.size() && s[pos] == '.') {
            ++pos;
            if (pos >= s.size() || !isdigit(static_cast<unsigned char>(s[pos])))
                return Fail(false, "bad fraction");
            while (pos < s.size() && isdigit(static_cast<unsigned char>(s[pos])))
                ++pos;
        }
        if (pos < s.size() && (s[pos] == 'e' || s[pos] == 'E')) {
            ++pos;
            if (pos < s.size() && (s[pos] == '+' || s[pos] == '-'))
                ++pos;
            if (pos >= s.size() || !isdigit(static_cast<unsigned char>(s[pos])))
                return Fail(false, "bad exponent");
            while (pos < s.size() && isdigit(static_cast<unsigned char>(s[pos])))
                ++pos;
        }
        v.type = Json::Number;
        v.number = strtod(s.substr(start, pos - start).c_str(), nullptr);
        return true;
    }
    static void PutUtf8(std::string& out, unsigned cp)
    {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    bool Hex4(unsigned& cp)
    {
        if (pos + 4 > s.size())
            return Fail(false, "short \\u escape");
        cp = 0;
        for (int i = 0; i < 4; ++i) {
            char c = s[pos++];
            if (!isxdigit(static_cast<unsigned char>(c)))
                return Fail(false, "bad \\u escape");
            cp = cp * 16 + static_cast<unsigned>(isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(c) - 'a' + 10));
        }
        return true;
    }
    bool Str(std::string& out)
    {
        ++pos;  // opening quote
        out.clear();
        while (true) {
            if (pos >= s.size())
                return Fail(false, "unterminated string");
            unsigned char c = static_cast<unsigned char>(s[pos]);
            if (c == '"') {
                ++pos;
                return true;
            }
            if (c < 0x20)
                return Fail(false, "raw control character in string");
            if (c >= 0x80) {
                // Must be well-formed UTF-8.
                size_t n = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
                if (n == 0 || c > 0xF4 || pos + n > s.size())
                    return Fail(false, "invalid UTF-8");
                for (size_t k = 1; k < n; ++k)
                    if ((static_cast<unsigned char>(s[pos + k]) & 0xC0) != 0x80)
                        return Fail(false, "invalid UTF-8");
                out.append(s, pos, n);
                pos += n;
                continue;
            }
            if (c != '\\') {
                out += static_cast<char>(c);
                ++pos;
                continue;
            }
            if (++pos >= s.size())
                return Fail(false, "unterminated escape");
            char e = s[pos++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                unsigned cp = 0;
                if (!Hex4(cp))
                    return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    unsigned lo = 0;
                    if (s.compare(pos, 2, "\\u") != 0)
                        return Fail(false, "lone surrogate");
                    pos += 2;
                    if (!Hex4(lo) || lo < 0xDC00 || lo > 0xDFFF)
                        return Fail(false, "bad surrogate pair");
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    return Fail(false, "lone surrogate");
                }
                PutUtf8(out, cp);
                break;
            }
            default: return Fail(false, "bad escape");
            }
        }
    }
    bool ArrayV(Json& v, int depth)
    {
        v.type = Json::Array;
        ++pos;
        Ws();
        if (pos < s.size() && s[pos] == ']') {
            ++pos;
            return true;
        }
        while (true) {
            Json item;
            Ws();
            if (!Value(item, depth + 1))
                return false;
            v.items.push_back(std::move(item));
            Ws();
            if (pos < s.size() && s[pos] == ',') {
                ++pos;
                continue;
            }
            if (pos < s.size() && s[pos] == ']') {
                ++pos;
                return true;
            }
            return Fail(false, "expected , or ]");
        }
    }
    bool ObjectV(Json& v, int depth)
    {
        v.type = Json::Object;
        ++pos;
        Ws();
        if (pos < s.size() && s[pos] == '}') {
            ++pos;
            return true;
        }
        while (true) {
            Ws();
            if (pos >= s.size() || s[pos] != '"')
                return Fail(false, "expected member name");
            std::string name;
            if (!Str(name))
                return false;
            Ws();
            if (pos >= s.size() || s[pos] != ':')
                return Fail(false, "expected :");
            ++pos;
            Ws();
            Json item;
            if (!Value(item, depth + 1))
                return false;
            v.members.emplace_back(std::move(name), std::move(item));
            Ws();
            if (pos < s.size() && s[pos] == ',') {
                ++pos;
                continue;
            }
            if (pos < s.size() && s[pos] == '}') {
                ++pos;
                return true;
            }
            return Fail(false, "expected , or }");
        }
    }
};

const Json& NullJson()
{
    static const Json kNull;
    return kNull;
}

} // namespace

const Json& Json::operator[](const std::string& name) const
{
    for (auto& m : members)
        if (m.first == name)
            return m.second;
    return NullJson();
}

const Json& Json::operator[](size_t index) const { return index < items.size() ? items[index] : NullJson(); }

bool Json::Has(const std::string& name) const
{
    for (auto& m : members)
        if (m.first == name)
            return true;
    return false;
}

bool ParseJson(const std::string& text, Json& out, std::string* error)
{
    Parser p(text);
    out = Json();
    bool ok = p.Document(out);
    if (!ok && error)
        *error = p.error;
    return ok;
}

} // namespace tooltest
