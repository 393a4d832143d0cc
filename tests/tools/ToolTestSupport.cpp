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
