// CPciAddress: a PCI function's address (segment, bus, device, function).
#pragma once

#include <compare>
#include <cstdint>
#include <string>

class CPciAddress {
public:
    CPciAddress() = default;
    CPciAddress(uint16_t segment, uint8_t bus, uint8_t device, uint8_t function)
        : m_Segment(segment), m_Bus(bus), m_Device(device), m_Function(function) {}

    uint16_t GetSegment() const { return m_Segment; }
    uint8_t GetBus() const { return m_Bus; }
    uint8_t GetDevice() const { return m_Device; }
    uint8_t GetFunction() const { return m_Function; }
    void SetSegment(uint16_t v) { m_Segment = v; }
    void SetBus(uint8_t v) { m_Bus = v; }
    void SetDevice(uint8_t v) { m_Device = v; }
    void SetFunction(uint8_t v) { m_Function = v; }

    /// "ssss:bb:dd.f" in lower-case hexadecimal, as the kernel writes it.
    std::string ToString() const;
    /// Parses "ssss:bb:dd.f" or "bb:dd.f" (segment 0), hexadecimal digits
    /// only (at most 4, 2, 2 and 1 of them; device <= 0x1f, function <= 7).
    /// Returns false and leaves the object unchanged when the text is not
    /// such an address.
    bool FromString(const std::string& text);

    /// Strict weak ordering by segment, then bus, then device, then function.
    friend auto operator<=>(const CPciAddress& a, const CPciAddress& b) = default;
    friend bool operator==(const CPciAddress& a, const CPciAddress& b) = default;

private:
    uint16_t m_Segment = 0;
    uint8_t m_Bus = 0;
    uint8_t m_Device = 0;
    uint8_t m_Function = 0;
};
