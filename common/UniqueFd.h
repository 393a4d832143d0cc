// Small move-only owners of operating-system resources.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

/// Owns a file descriptor; closes it on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_Fd(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& o) noexcept : m_Fd(o.Release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept
    {
        if (this != &o)
            Reset(o.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return m_Fd; }
    bool Valid() const { return m_Fd >= 0; }
    explicit operator bool() const { return Valid(); }
    /// Hands the descriptor over to the caller.
    int Release() { return std::exchange(m_Fd, -1); }
    void Reset(int fd = -1)
    {
        if (m_Fd >= 0)
            ::close(m_Fd);
        m_Fd = fd;
    }

private:
    int m_Fd = -1;
};

/// Owns a FILE*; closes it on destruction.
class UniqueFile {
public:
    UniqueFile() = default;
    explicit UniqueFile(FILE* f) : m_File(f) {}
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;
    UniqueFile(UniqueFile&& o) noexcept : m_File(o.Release()) {}
    UniqueFile& operator=(UniqueFile&& o) noexcept
    {
        if (this != &o)
            Reset(o.Release());
        return *this;
    }
    ~UniqueFile() { Reset(); }

    FILE* Get() const { return m_File; }
    explicit operator bool() const { return m_File != nullptr; }
    FILE* Release() { return std::exchange(m_File, nullptr); }
    void Reset(FILE* f = nullptr)
    {
        if (m_File)
            fclose(m_File);
        m_File = f;
    }

private:
    FILE* m_File = nullptr;
};

/// Owns a DIR*; closes it on destruction.
class UniqueDir {
public:
    UniqueDir() = default;
    explicit UniqueDir(DIR* d) : m_Dir(d) {}
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;
    UniqueDir(UniqueDir&& o) noexcept : m_Dir(o.Release()) {}
    UniqueDir& operator=(UniqueDir&& o) noexcept
    {
        if (this != &o)
            Reset(o.Release());
        return *this;
    }
    ~UniqueDir() { Reset(); }
    DIR* Get() const { return m_Dir; }
    explicit operator bool() const { return m_Dir != nullptr; }
    DIR* Release() { return std::exchange(m_Dir, nullptr); }
    void Reset(DIR* d = nullptr)
    {
        if (m_Dir)
            closedir(m_Dir);
        m_Dir = d;
    }

private:
    DIR* m_Dir = nullptr;
};

/// Owns a memory mapping; unmaps it on destruction.
class UniqueMapping {
public:
    UniqueMapping() = default;
    UniqueMapping(void* base, size_t length) : m_Base(base == MAP_FAILED ? nullptr : base), m_Length(length) {}
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;
    UniqueMapping(UniqueMapping&& o) noexcept
        : m_Base(std::exchange(o.m_Base, nullptr)), m_Length(std::exchange(o.m_Length, 0)) {}
    UniqueMapping& operator=(UniqueMapping&& o) noexcept
    {
        if (this != &o) {
            Reset();
            m_Base = std::exchange(o.m_Base, nullptr);
            m_Length = std::exchange(o.m_Length, 0);
        }
        return *this;
    }
    ~UniqueMapping() { Reset(); }

    void* Get() const { return m_Base; }
    size_t Length() const { return m_Length; }
    explicit operator bool() const { return m_Base != nullptr; }
    void Reset()
    {
        if (m_Base)
            munmap(m_Base, m_Length);
        m_Base = nullptr;
        m_Length = 0;
    }

private:
    void* m_Base = nullptr;
    size_t m_Length = 0;
};
