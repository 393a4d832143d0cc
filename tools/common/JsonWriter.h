// CJsonWriter: a small streaming writer of JSON text for the operator tools.
// Strings are escaped completely: quotes, backslashes and every control
// character; bytes that are not valid UTF-8 become U+FFFD, so the output
// is valid JSON whatever the input bytes are.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class CJsonWriter {
public:
    /// `pretty`: two-blank indentation and one member a line.
    explicit CJsonWriter(bool pretty = true) : m_Pretty(pretty) {}

    CJsonWriter& BeginObject();
    CJsonWriter& EndObject();
    CJsonWriter& BeginArray();
    CJsonWriter& EndArray();
    /// The name of the next member (inside an object).
    CJsonWriter& Key(std::string_view name);

    CJsonWriter& String(std::string_view text);
    CJsonWriter& Number(int64_t value);
    CJsonWriter& Unsigned(uint64_t value);
    CJsonWriter& Bool(bool value);
    CJsonWriter& Null();
    /// A string, or null when absent.
    CJsonWriter& OptString(const std::optional<std::string>& text);
    CJsonWriter& OptUnsigned(const std::optional<uint64_t>& value);

    /// The text written so far (complete once every container is closed).
    const std::string& Text() const { return m_Out; }
    /// Takes the text out, leaving the writer empty.
    std::string Take();

    /// `text` as a quoted JSON string.
    static std::string Quote(std::string_view text);

private:
    void BeforeValue();
    void Newline();

    struct Level {
        bool isObject;
        bool empty;
    };
    std::string m_Out;
    std::vector<Level> m_Stack;
    bool m_Pretty;
    bool m_AfterKey = false;
};
