#include "common/CPciAddress.h"

#include <cstdio>

std::string CPciAddress::ToString() const
{
    char text[32];
    snprintf(text, sizeof text, "%04x:%02x:%02x.%x", m_Segment, m_Bus, m_Device, m_Function);
    return text;
}

bool CPciAddress::FromString(const std::string& text)
{
    unsigned seg = 0, bus = 0, dev = 0, fn = 0;
    int used = 0;
    if (sscanf(text.c_str(), "%x:%x:%x.%x%n", &seg, &bus, &dev, &fn, &used) == 4 &&
        static_cast<size_t>(used) == text.size()) {
        // full form
    } else if (used = 0, seg = 0,
               sscanf(text.c_str(), "%x:%x.%x%n", &bus, &dev, &fn, &used) == 3 &&
                   static_cast<size_t>(used) == text.size()) {
        // short form, segment 0
    } else {
        return false;
    }
    if (seg > 0xFFFF || bus > 0xFF || dev > 0x1F || fn > 7)
        return false;
    *this = CPciAddress(static_cast<uint16_t>(seg), static_cast<uint8_t>(bus),
                        static_cast<uint8_t>(dev), static_cast<uint8_t>(fn));
    return true;
}
