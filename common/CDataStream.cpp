#include "common/CDataStream.h"

#include <cerrno>
#include <cstdio>

#include "common/FailureTrace.h"
#include "common/FileIO.h"

#include <new>

namespace {

// True when [p, p + length) overlaps the vector's storage.
bool Overlaps(const std::vector<uint8_t>& v, const uint8_t* p, size_t length)
{
    if (v.empty())
        return false;
    auto begin = reinterpret_cast<uintptr_t>(v.data());
    auto end = begin + v.size();
    auto first = reinterpret_cast<uintptr_t>(p);
    return first < end && first + length > begin;
}

} // namespace

void CDataStream::SetAt(const void* data, size_t length)
{
    if (data == nullptr || length == 0) {
        m_Data.clear();
        return;
    }
    const uint8_t* p = static_cast<const uint8_t*>(data);
    // A range out of this stream itself is copied first: the vector's range
    // functions may not be given their own storage.
    if (Overlaps(m_Data, p, length)) {
        std::vector<uint8_t> copy(p, p + length);
        m_Data.swap(copy);
        return;
    }
    m_Data.assign(p, p + length);
}

void CDataStream::Append(const void* data, size_t length)
{
    if (data == nullptr || length == 0)
        return;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (Overlaps(m_Data, p, length)) {
        std::vector<uint8_t> copy(p, p + length);
        m_Data.insert(m_Data.end(), copy.begin(), copy.end());
        return;
    }
    m_Data.insert(m_Data.end(), p, p + length);
}

bool CDataStream::Fail(std::string text)
{
    m_LastError = std::move(text);
    tarvd::TraceFailure(m_LastError.c_str());
    return false;
}

bool CDataStream::ReadFromFile(const char* path, size_t maxSize)
{
    if (path == nullptr || *path == '\0')
        return Fail("CDataStream::ReadFromFile() : Argument file path is empty!");
    // The whole file or nothing: a file longer than the cap is refused, not
    // cut, so that a caller never parses a truncated table as a whole one.
    std::string text;
    bool cut = false;
    int err = 0;
    try {
        err = tarvd::ReadFileBounded(path, maxSize, text, &cut);
        if (err == 0 && !cut)
            m_Data.assign(text.begin(), text.end());
    } catch (const std::bad_alloc&) {
        err = ENOMEM;
    }
    if (err != 0 || cut)
        return Fail(std::string("CDataStream::ReadFromFile() : Could not read file : '") + path + "'");
    m_LastError.clear();
    return true;
}

std::string CDataStream::DumpHex() const
{
    std::string out;
    char line[128];
    for (size_t off = 0; off < m_Data.size(); off += 16) {
        int n = snprintf(line, sizeof line, "%08zX  ", off);
        std::string text(line, static_cast<size_t>(n));
        std::string chars;
        for (size_t i = 0; i < 16; ++i) {
            if (off + i < m_Data.size()) {
                uint8_t b = m_Data[off + i];
                snprintf(line, sizeof line, "%02X ", b);
                text += line;
                chars += (b >= 0x20 && b <= 0x7E) ? static_cast<char>(b) : '.';
            } else {
                text += "   ";
            }
        }
        out += text + " " + chars + "\n";
    }
    return out;
}
