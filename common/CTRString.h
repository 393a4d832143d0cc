// CTRString: the library's string type, a std::string with printf-style
// formatting helpers.
#pragma once

#include <cstdarg>
#include <string>

class CTRString : public std::string {
public:
    using std::string::string;
    CTRString() = default;
    CTRString(const std::string& s) : std::string(s) {}
    CTRString(std::string&& s) : std::string(std::move(s)) {}

    /// Replaces the contents with the printf-formatted text and returns the
    /// string itself.  Arguments may point into this string.  A null format
    /// or a formatting error leaves the string empty.
    CTRString& Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    CTRString& FormatV(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));

    /// Appends printf-formatted text: the result is measured with a first
    /// formatting pass into no buffer, the string grown by that length and
    /// the text formatted into the new tail.  Returns the string itself; on a
    /// formatting error (or a null format) the string is left unchanged.
    /// Arguments may point into this string.
    CTRString& AppendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    CTRString& AppendFormatV(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));
};
