#include "common/CPciAddress.h"

#include "common/NumberParse.h"

#include <cstdio>

std::string CPciAddress::ToString() const
{
    char text[32];
    snprintf(text, sizeof text, "%04x:%02x:%02x.%x", m_Segment, m_Bus, m_Device, m_Function);
    return text;
}

namespace {

// Reads 1 to maxDigits hexadecimal digits at text[pos]; advances pos.
// No sign, no "0x", no blanks: only what the kernel writes.
bool ReadHex(const std::string& text, size_t& pos, size_t maxDigits, unsigned& value)
{
    size_t digits = 0;
    value = 0;
    while (pos < text.size() && digits < maxDigits) {
        int d = tarvd::HexDigitValue(text[pos]);
        if (d < 0)
            break;
        value = value * 16 + static_cast<unsigned>(d);
        ++pos;
        ++digits;
    }
    return digits > 0;
}

bool Expect(const std::string& text, size_t& pos, char c)
{
    if (pos >= text.size() || text[pos] != c)
        return false;
    ++pos;
    return true;
}

} // namespace

bool CPciAddress::FromString(const std::string& text)
{
    // Count the colons to tell "ssss:bb:dd.f" from "bb:dd.f".
    size_t colons = 0;
    for (char c : text)
        colons += (c == ':');
    if (colons != 1 && colons != 2)
        return false;

    size_t pos = 0;
    unsigned seg = 0, bus = 0, dev = 0, fn = 0;
    if (colons == 2 && !(ReadHex(text, pos, 4, seg) && Expect(text, pos, ':')))
        return false;
    if (!(ReadHex(text, pos, 2, bus) && Expect(text, pos, ':') && ReadHex(text, pos, 2, dev) &&
          Expect(text, pos, '.') && ReadHex(text, pos, 1, fn)))
        return false;
    if (pos != text.size() || dev > 0x1F || fn > 7)
        return false;
    *this = CPciAddress(static_cast<uint16_t>(seg), static_cast<uint8_t>(bus),
                        static_cast<uint8_t>(dev), static_cast<uint8_t>(fn));
    return true;
}
