// Fuzz target: the memory figures read from /proc/<pid>/status, through the
// /proc root seam and a file holding the input.
#include "FuzzSupport.h"

#include "daemon/CProcess.h"

TARVD_FUZZ_TARGET(data, size)
{
    static const std::string root = fuzzsupport::ScratchTree("proc", {"/7"});
    if (!fuzzsupport::WriteWhole(root + "/7/status", data, size))
        return 0;
    CProcess::SetProcRoot(root.c_str());

    static const char* const kFields[] = {"VmRSS:", "VmSize:", "VmPeak:", "Name:", "Pid:", "VmSwap:"};
    for (const char* field : kFields) {
        const uint64_t untouched = 0x5A5A5A5A5A5A5A5Aull;
        uint64_t bytes = untouched;
        uint64_t kilo = untouched;
        uint64_t giga = untouched;
        CProcess::GetProcessMemorySpecificInfo(7, bytes, field, CProcess::BYTES);
        CProcess::GetProcessMemorySpecificInfo(7, kilo, field, CProcess::KILOBYTES);
        CProcess::GetProcessMemorySpecificInfo(7, giga, field, CProcess::GIGABYTES);
        // The same line is found whatever the unit; only the shift differs.
        FUZZ_CHECK((bytes == untouched) == (kilo == untouched));
        if (bytes != untouched) {
            FUZZ_CHECK(kilo == (bytes >> 10));
            FUZZ_CHECK(giga == (bytes >> 30));
        }
    }
    uint64_t size64 = 0, peak = 0, swap = 0, fourth = 1, diff = 0;
    bool ok = CProcess::GetProcessMemoryInfo(7, size64, peak, swap, fourth, diff);
    FUZZ_CHECK(fourth == 0);
    FUZZ_CHECK(ok == (size64 != 0 && peak != 0));
    CProcess::SetProcRoot(nullptr);
    return 0;
}
