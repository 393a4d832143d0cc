#include "tools/common/JsonWriter.h"

#include <cstdio>

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 when the bytes there
// are not one (overlong forms, surrogates and values above U+10FFFF count
// as invalid).
size_t Utf8Length(std::string_view text, size_t i)
{
    auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char c = byte(i);
    size_t n;
    uint32_t cp;
    if (c < 0x80)
        return 1;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (i + n > text.size())
        return 0;
    for (size_t k = 1; k < n; ++k) {
        unsigned char d = byte(i + k);
        if ((d & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (d & 0x3F);
    }
    if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

} // namespace

std::string CJsonWriter::Quote(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            size_t n = Utf8Length(text, i);
            if (n == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text.substr(i, n));
                i += n;
            }
            continue;
        }
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        default:
            if (c < 0x20 || c == 0x7F) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
        ++i;
    }
    out += '"';
    return out;
}

void CJsonWriter::Newline()
{
    if (!m_Pretty)
        return;
    m_Out += '\n';
    m_Out.append(m_Stack.size() * 2, ' ');
}

void CJsonWriter::BeforeValue()
{
    if (m_AfterKey) {
        m_AfterKey = false;
        return;
    }
    if (!m_Stack.empty()) {
        if (!m_Stack.back().empty)
            m_Out += ',';
        m_Stack.back().empty = false;
        Newline();
    }
}

CJsonWriter& CJsonWriter::Key(std::string_view name)
{
    if (!m_Stack.empty()) {
        if (!m_Stack.back().empty)
            m_Out += ',';
        m_Stack.back().empty = false;
        Newline();
    }
    m_Out += Quote(name);
    m_Out += m_Pretty ? ": " : ":";
    m_AfterKey = true;
    return *this;
}

CJsonWriter& CJsonWriter::BeginObject()
{
    BeforeValue();
    m_Out += '{';
    m_Stack.push_back({true, true});
    return *this;
}

CJsonWriter& CJsonWriter::BeginArray()
{
    BeforeValue();
    m_Out += '[';
    m_Stack.push_back({false, true});
    return *this;
}

CJsonWriter& CJsonWriter::EndObject()
{
    bool empty = m_Stack.empty() || m_Stack.back().empty;
    if (!m_Stack.empty())
        m_Stack.pop_back();
    if (!empty)
        Newline();
    m_Out += '}';
    return *this;
}

CJsonWriter& CJsonWriter::EndArray()
{
    bool empty = m_Stack.empty() || m_Stack.back().empty;
    if (!m_Stack.empty())
        m_Stack.pop_back();
    if (!empty)
        Newline();
    m_Out += ']';
    return *this;
}

CJsonWriter& CJsonWriter::String(std::string_view text)
{
    BeforeValue();
    m_Out += Quote(text);
    return *this;
}

CJsonWriter& CJsonWriter::Number(int64_t value)
{
    BeforeValue();
    m_Out += std::to_string(value);
    return *this;
}

CJsonWriter& CJsonWriter::Unsigned(uint64_t value)
{
    BeforeValue();
    m_Out += std::to_string(value);
    return *this;
}

CJsonWriter& CJsonWriter::Bool(bool value)
{
    BeforeValue();
    m_Out += value ? "true" : "false";
    return *this;
}

CJsonWriter& CJsonWriter::Null()
{
    BeforeValue();
    m_Out += "null";
    return *this;
}

CJsonWriter& CJsonWriter::OptString(const std::optional<std::string>& text)
{
    return text ? String(*text) : Null();
}

CJsonWriter& CJsonWriter::OptUnsigned(const std::optional<uint64_t>& value)
{
    return value ? Unsigned(*value) : Null();
}

std::string CJsonWriter::Take()
{
    std::string out;
    out.swap(m_Out);
    m_Stack.clear();
    m_AfterKey = false;
    return out;
}
