// Digit-level number parsing shared by the readers of /proc files,
// firmware texts, PCI addresses and the registry file.
#pragma once

#include <cstdint>

namespace tarvd {

/// The value of one hexadecimal digit, or -1.
constexpr int HexDigitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/// Reads the digits of an unsigned number in `base` (2..16) from `p` up to
/// `end`, no sign and no blanks.  A number too large for 64 bits is held at
/// UINT64_MAX (as strtoull does) instead of wrapping to a small one.
/// @return false when no digit stands at `p`; `p` is left after the digits.
inline bool ParseDigits(const char*& p, const char* end, uint64_t& value, unsigned base = 10)
{
    const char* q = p;
    uint64_t v = 0;
    while (q < end) {
        int d = HexDigitValue(*q);
        if (d < 0 || static_cast<unsigned>(d) >= base)
            break;
        const uint64_t digit = static_cast<uint64_t>(d);
        v = v > (UINT64_MAX - digit) / base ? UINT64_MAX : v * base + digit;
        ++q;
    }
    if (q == p)
        return false;
    p = q;
    value = v;
    return true;
}

} // namespace tarvd
