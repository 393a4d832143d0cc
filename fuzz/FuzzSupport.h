// Helpers shared by the fuzz targets: a private scratch directory, writing
// an input as a file, and an invariant check that stops the run.
//
// Each target defines its entry under TARVD_FUZZ_ENTRY, which is LLVMFuzzerTestOneInput in the
// fuzzer build and a distinct name when the same body is compiled into the replay test program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#ifndef TARVD_FUZZ_ENTRY
#define TARVD_FUZZ_ENTRY LLVMFuzzerTestOneInput
#endif

namespace fuzzsupport {

/// Inputs larger than this are ignored (the fuzzer also gets -max_len).
constexpr size_t kMaxInput = 64 * 1024;

/// A scratch directory of this process, made on first use (under
/// TARVD_FUZZ_TMP, else /dev/shm when it exists, else /tmp) and removed at exit.
const std::string& ScratchDir();

/// The folder `name` of the scratch directory with the given subfolders
/// (each a path below it, parents first), made once; its path.
std::string ScratchTree(const char* name, std::initializer_list<const char*> subfolders = {});

/// Writes `size` bytes to `path` (created or truncated).  False on failure.
bool WriteWhole(const std::string& path, const void* data, size_t size);

[[noreturn]] void Fail(const char* file, int line, const char* what);

} // namespace fuzzsupport

/// Opens a target's body: inputs over kMaxInput are ignored, the others reach the body.
#define TARVD_FUZZ_TARGET(data, size)                                                \
    static int FuzzBody(const uint8_t* data, size_t size);                            \
    extern "C" int TARVD_FUZZ_ENTRY(const uint8_t* data, size_t size)                 \
    {                                                                                 \
        return size > ::fuzzsupport::kMaxInput ? 0 : FuzzBody(data, size);          \
    }                                                                                 \
    static int FuzzBody(const uint8_t* data, size_t size)

/// An invariant of a target: when it does not hold, the run stops with a
/// message (the fuzzer keeps the input as a crash).
#define FUZZ_CHECK(cond)                                                   \
    do {                                                                   \
        if (!(cond))                                                       \
            ::fuzzsupport::Fail(__FILE__, __LINE__, #cond);                \
    } while (0)
