#include "hwinfo/SmbiosSlots.h"

#include <map>

SmbiosSystemSlot DecodeSystemSlot(const CByteReader& s)
{
    SmbiosSystemSlot slot;
    slot.length = s.U8Or(1);
    if (slot.length >= 0x05)
        slot.designation = SmbiosStructureString(s, s.U8Or(0x04));
    slot.type = s.U8Or(0x05);
    slot.dataBusWidth = s.U8Or(0x06);
    slot.usage = s.U8Or(0x07);
    if (slot.length >= 0x0B)
        slot.id = s.Le16Or(0x09);
    if (slot.length >= 0x11 && s.Contains(0x0D, 4)) {
        slot.segment = s.Le16Or(0x0D);
        slot.bus = s.U8Or(0x0F);
        slot.device = s.U8Or(0x10) >> 3;
        slot.function = s.U8Or(0x10) & 7;
    }
    return slot;
}

std::optional<std::string> SmbiosStructureString(const CByteReader& s, unsigned index)
{
    size_t pos = s.U8Or(1);
    if (index == 0 || pos > s.Size())
        return std::nullopt;
    for (unsigned n = 1; pos < s.Size(); ++n) {
        size_t end = pos;
        while (end < s.Size() && s.Data()[end] != 0)
            ++end;
        if (end == pos)
            return std::nullopt;  // the double NUL ends the strings
        if (n == index)
            return std::string(reinterpret_cast<const char*>(s.Data()) + pos, end - pos);
        pos = end + 1;
    }
    return std::nullopt;
}

const char* SmbiosSlotTypeName(unsigned t)
{
    static const std::map<unsigned, const char*> kNames = {
        {0x01, "Other"}, {0x02, "Unknown"}, {0x03, "ISA"}, {0x04, "MCA"}, {0x05, "EISA"}, {0x06, "PCI"},
        {0x07, "PC Card (PCMCIA)"}, {0x08, "VL-VESA"}, {0x09, "Proprietary"}, {0x0A, "Processor Card Slot"},
        {0x0B, "Proprietary Memory Card Slot"}, {0x0C, "I/O Riser Card Slot"}, {0x0D, "NuBus"},
        {0x0E, "PCI - 66MHz Capable"}, {0x0F, "AGP"}, {0x10, "AGP 2X"}, {0x11, "AGP 4X"}, {0x12, "PCI-X"},
        {0x13, "AGP 8X"}, {0x14, "M.2 Socket 1-DP"}, {0x15, "M.2 Socket 1-SD"}, {0x16, "M.2 Socket 2"},
        {0x17, "M.2 Socket 3"}, {0x18, "MXM Type I"}, {0x19, "MXM Type II"}, {0x1A, "MXM Type III"},
        {0x1B, "MXM Type III-HE"}, {0x1C, "MXM Type IV"}, {0x1D, "MXM 3.0 Type A"}, {0x1E, "MXM 3.0 Type B"},
        {0x1F, "PCI Express Gen 2 SFF-8639 (U.2)"}, {0x20, "PCI Express Gen 3 SFF-8639 (U.2)"},
        {0x21, "PCI Express Mini 52-pin with bottom-side keep-outs"},
        {0x22, "PCI Express Mini 52-pin without bottom-side keep-outs"}, {0x23, "PCI Express Mini 76-pin"},
        {0x24, "PCI Express Gen 4 SFF-8639 (U.2)"}, {0x25, "PCI Express Gen 5 SFF-8639 (U.2)"},
        {0x26, "OCP NIC 3.0 Small Form Factor"}, {0x27, "OCP NIC 3.0 Large Form Factor"},
        {0x28, "OCP NIC Prior to 3.0"}, {0x30, "CXL Flexbus 1.0"}, {0xA0, "PC-98/C20"}, {0xA1, "PC-98/C24"},
        {0xA2, "PC-98/E"}, {0xA3, "PC-98/Local Bus"}, {0xA4, "PC-98/Card"}, {0xA5, "PCI Express"},
        {0xA6, "PCI Express x1"}, {0xA7, "PCI Express x2"}, {0xA8, "PCI Express x4"}, {0xA9, "PCI Express x8"},
        {0xAA, "PCI Express x16"}, {0xAB, "PCI Express Gen 2"}, {0xAC, "PCI Express Gen 2 x1"},
        {0xAD, "PCI Express Gen 2 x2"}, {0xAE, "PCI Express Gen 2 x4"}, {0xAF, "PCI Express Gen 2 x8"},
        {0xB0, "PCI Express Gen 2 x16"}, {0xB1, "PCI Express Gen 3"}, {0xB2, "PCI Express Gen 3 x1"},
        {0xB3, "PCI Express Gen 3 x2"}, {0xB4, "PCI Express Gen 3 x4"}, {0xB5, "PCI Express Gen 3 x8"},
        {0xB6, "PCI Express Gen 3 x16"}, {0xB8, "PCI Express Gen 4"}, {0xB9, "PCI Express Gen 4 x1"},
        {0xBA, "PCI Express Gen 4 x2"}, {0xBB, "PCI Express Gen 4 x4"}, {0xBC, "PCI Express Gen 4 x8"},
        {0xBD, "PCI Express Gen 4 x16"}, {0xBE, "PCI Express Gen 5"}, {0xBF, "PCI Express Gen 5 x1"},
        {0xC0, "PCI Express Gen 5 x2"}, {0xC1, "PCI Express Gen 5 x4"}, {0xC2, "PCI Express Gen 5 x8"},
        {0xC3, "PCI Express Gen 5 x16"}, {0xC4, "PCI Express Gen 6 and Beyond"},
        {0xC5, "EDSFF E1.S, E1.L"}, {0xC6, "EDSFF E3.S, E3.L"},
    };
    auto it = kNames.find(t);
    return it == kNames.end() ? "Unknown type" : it->second;
}

const char* SmbiosSlotBusWidthName(unsigned w)
{
    static const char* const kNames[] = {nullptr, "Other", "Unknown", "8 bit", "16 bit", "32 bit", "64 bit",
                                         "128 bit", "x1", "x2", "x4", "x8", "x12", "x16", "x32"};
    return w < sizeof kNames / sizeof kNames[0] && kNames[w] ? kNames[w] : "Unknown width";
}

const char* SmbiosSlotUsageName(unsigned u)
{
    switch (u) {
    case 1: return "Other";
    case 2: return "Unknown";
    case 3: return "Available";
    case 4: return "In use";
    case 5: return "Unavailable";
    default: return "Unknown usage";
    }
}
