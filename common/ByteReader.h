// CByteReader: a bounded, read-only view of untrusted bytes (firmware tables,
// /proc files, configuration files).  Every read past the end answers
// "absent" instead of touching memory outside the view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

class CByteReader {
public:
    CByteReader() = default;
    CByteReader(const void* data, size_t size)
        : m_Data(static_cast<const uint8_t*>(data)), m_Size(data ? size : 0) {}

    const uint8_t* Data() const { return m_Data; }
    size_t Size() const { return m_Size; }
    bool Empty() const { return m_Size == 0; }

    /// True when [offset, offset + length) lies inside the view.
    bool Contains(size_t offset, size_t length) const
    {
        return offset <= m_Size && length <= m_Size - offset;
    }

    std::optional<uint8_t> ReadU8(size_t offset) const
    {
        if (!Contains(offset, 1))
            return std::nullopt;
        return m_Data[offset];
    }
    std::optional<uint16_t> ReadLe16(size_t offset) const { return ReadLe<uint16_t>(offset); }
    std::optional<uint32_t> ReadLe32(size_t offset) const { return ReadLe<uint32_t>(offset); }
    std::optional<uint64_t> ReadLe64(size_t offset) const { return ReadLe<uint64_t>(offset); }

    /// The byte at offset, or `fallback` when it lies outside the view.
    uint8_t U8Or(size_t offset, uint8_t fallback = 0) const { return ReadU8(offset).value_or(fallback); }
    uint16_t Le16Or(size_t offset, uint16_t fallback = 0) const { return ReadLe16(offset).value_or(fallback); }
    uint32_t Le32Or(size_t offset, uint32_t fallback = 0) const { return ReadLe32(offset).value_or(fallback); }
    uint64_t Le64Or(size_t offset, uint64_t fallback = 0) const { return ReadLe64(offset).value_or(fallback); }

    /// True when the bytes at offset equal `text` (length bytes).  An empty
    /// text matches at any offset inside the view or at its end.
    bool Matches(size_t offset, const void* text, size_t length) const
    {
        if (!Contains(offset, length))
            return false;
        if (length == 0)
            return true;
        if (text == nullptr)
            return false;
        // The texts are signatures of a few bytes looked for at every
        // paragraph of a firmware area: a plain loop beats a library call.
        const auto* want = static_cast<const uint8_t*>(text);
        for (size_t i = 0; i < length; ++i)
            if (m_Data[offset + i] != want[i])
                return false;
        return true;
    }

    /// A sub-view of `length` bytes from `offset`, clipped to the end of this
    /// view; empty when `offset` lies past the end.
    CByteReader Sub(size_t offset, size_t length) const
    {
        if (offset > m_Size)
            return CByteReader();
        size_t avail = m_Size - offset;
        return CByteReader(m_Data + offset, length < avail ? length : avail);
    }

private:
    template <typename T>
    std::optional<T> ReadLe(size_t offset) const
    {
        if (!Contains(offset, sizeof(T)))
            return std::nullopt;
        T value = 0;
        for (size_t i = 0; i < sizeof(T); ++i)
            value |= static_cast<T>(static_cast<T>(m_Data[offset + i]) << (8 * i));
        return value;
    }

    const uint8_t* m_Data = nullptr;
    size_t m_Size = 0;
};
