// Move-only owners of operating-system resources: descriptors, FILE*, DIR*,
// memory mappings and dlopen handles.  One template does the owning; each
// resource kind only says what "none" is and how it is released.
#pragma once

#include <cstddef>
#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

/// Owns one handle of type `Traits::Type`; releases it with `Traits::Close`
/// on destruction and before taking a new one.  Ownership moves, never copies;
/// `Release()` hands the raw handle to the caller, who then closes it.
template <typename Traits>
class CUniqueHandle {
public:
    using Type = typename Traits::Type;

    CUniqueHandle() = default;
    explicit CUniqueHandle(Type handle) : m_Handle(handle) {}
    CUniqueHandle(const CUniqueHandle&) = delete;
    CUniqueHandle& operator=(const CUniqueHandle&) = delete;
    CUniqueHandle(CUniqueHandle&& o) noexcept : m_Handle(o.Release()) {}
    CUniqueHandle& operator=(CUniqueHandle&& o) noexcept
    {
        if (this != &o)
            Reset(o.Release());
        return *this;
    }
    ~CUniqueHandle() { Reset(); }

    Type Get() const { return m_Handle; }
    bool Valid() const { return Traits::IsValid(m_Handle); }
    explicit operator bool() const { return Valid(); }
    /// Hands the handle over to the caller; this owner is empty afterwards.
    Type Release() { return std::exchange(m_Handle, Traits::Invalid()); }
    /// Releases the handle held (if any) and takes `handle`.
    void Reset(Type handle = Traits::Invalid())
    {
        Type old = std::exchange(m_Handle, handle);
        if (Traits::IsValid(old))
            Traits::Close(old);
    }

private:
    Type m_Handle = Traits::Invalid();
};

struct FdTraits {
    using Type = int;
    static int Invalid() { return -1; }
    static bool IsValid(int fd) { return fd >= 0; }
    static void Close(int fd) { ::close(fd); }
};

struct FileTraits {
    using Type = FILE*;
    static FILE* Invalid() { return nullptr; }
    static bool IsValid(FILE* f) { return f != nullptr; }
    static void Close(FILE* f) { fclose(f); }
};

struct DirTraits {
    using Type = DIR*;
    static DIR* Invalid() { return nullptr; }
    static bool IsValid(DIR* d) { return d != nullptr; }
    static void Close(DIR* d) { closedir(d); }
};

struct DlTraits {
    using Type = void*;
    static void* Invalid() { return nullptr; }
    static bool IsValid(void* h) { return h != nullptr; }
    static void Close(void* h) { dlclose(h); }
};

/// A mapped region: its base and length travel together.
struct MappedRegion {
    void* base = nullptr;
    size_t length = 0;
};

struct MappingTraits {
    using Type = MappedRegion;
    static MappedRegion Invalid() { return {}; }
    static bool IsValid(const MappedRegion& m) { return m.base != nullptr; }
    static void Close(const MappedRegion& m) { munmap(m.base, m.length); }
};

using UniqueFd = CUniqueHandle<FdTraits>;
using UniqueFile = CUniqueHandle<FileTraits>;
using UniqueDir = CUniqueHandle<DirTraits>;
using UniqueLibrary = CUniqueHandle<DlTraits>;

/// Owns a memory mapping; unmaps it on destruction.  Takes mmap's result as
/// it is: MAP_FAILED counts as no mapping.
class UniqueMapping : public CUniqueHandle<MappingTraits> {
public:
    UniqueMapping() = default;
    UniqueMapping(void* base, size_t length)
        : CUniqueHandle(MappedRegion{base == MAP_FAILED ? nullptr : base, base == MAP_FAILED ? 0 : length}) {}
    void* Get() const { return CUniqueHandle::Get().base; }
    size_t Length() const { return CUniqueHandle::Get().length; }
};
