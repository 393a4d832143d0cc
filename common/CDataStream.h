// CDataStream: an owned, growable byte buffer, copied by value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ByteReader.h"

class CDataStream {
public:
    CDataStream() = default;
    /// Copies `length` bytes from `data` (nothing when data is null).
    CDataStream(const void* data, size_t length) { SetAt(data, length); }

    /// Replaces the contents with a copy of `length` bytes from `data`.
    void SetAt(const void* data, size_t length);
    /// Appends a copy of `length` bytes.
    void Append(const void* data, size_t length);
    void Clear() { m_Data.clear(); }

    /// The largest file ReadFromFile takes by default: the largest table a
    /// 32-bit length field describes, plus room for its header.
    static constexpr size_t kMaxFileSize = (size_t{1} << 32) + 4096;

    /// Reads the whole file (binary) into the stream.  On failure the
    /// contents are unchanged, the reason is traced and kept as the last
    /// error text:
    ///   "CDataStream::ReadFromFile() : Argument file path is empty!"
    ///   "CDataStream::ReadFromFile() : Could not read file : '<path>'"
    /// A file longer than `maxSize` (a device that never ends) fails as
    /// unreadable; it is never cut short.
    bool ReadFromFile(const char* path, size_t maxSize = kMaxFileSize);

    /// Hex and character dump, 16 bytes a line: offset, "%02X " per byte,
    /// then the printable characters ('.' for others).
    std::string DumpHex() const;

    size_t GetSize() const { return m_Data.size(); }
    size_t size() const { return m_Data.size(); }
    bool IsEmpty() const { return m_Data.empty(); }
    bool empty() const { return m_Data.empty(); }
    const uint8_t* GetData() const { return m_Data.data(); }
    uint8_t* GetBuffer() { return m_Data.data(); }
    void Resize(size_t n) { m_Data.resize(n); }
    const std::string& GetLastError() const { return m_LastError; }

    /// A bounded reader over the current contents (valid until the next change).
    CByteReader Reader() const { return CByteReader(m_Data.data(), m_Data.size()); }

    friend bool operator==(const CDataStream& a, const CDataStream& b) { return a.m_Data == b.m_Data; }

private:
    bool Fail(std::string text);

    std::vector<uint8_t> m_Data;
    std::string m_LastError;
};
