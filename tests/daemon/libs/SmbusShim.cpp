// LD_PRELOAD shim that plays the smbus driver: opening "/dev/pci/smbus" yields a descriptor of
// /dev/null, and IOCTL_SMBUS_DRIVER_INFO on it is answered here. $SHIM_SMBUS_MODE: "ok" answers,
// "fail" fails the ioctl with ENOTTY; unset leaves everything to the system. What the daemon sent
// is recorded to $SHIM_RECORD.
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include "TestRecord.h"
#include "daemon/kopd/SmbusDriverInfo.h"

namespace {

int g_SmbusFd = -1;

const char* Mode()
{
    const char* m = getenv("SHIM_SMBUS_MODE");
    return m ? m : "";
}

int RealOpen(const char* path, int flags, mode_t mode)
{
    using OpenFn = int (*)(const char*, int, ...);
    static OpenFn real = reinterpret_cast<OpenFn>(dlsym(RTLD_NEXT, "open"));
    return real(path, flags, mode);
}

int Intercept(const char* path, int flags, mode_t mode)
{
    if (path && strcmp(path, SMBUS_DEVICE_PATH) == 0) {
        TestRecord("SHIM_RECORD", "open flags=0x%X", static_cast<unsigned>(flags));
        if (*Mode()) {
            g_SmbusFd = RealOpen("/dev/null", O_RDWR | (flags & O_CLOEXEC), 0);
            return g_SmbusFd;
        }
    }
    return RealOpen(path, flags, mode);
}

template <size_t N>
void Put(char (&field)[N], const char* text)
{
    memcpy(field, text, strnlen(text, N));
}

} // namespace

extern "C" {

// The mode argument is there only when a file may be created.
#define TARVD_SHIM_OPEN(name)                                                            \
    __attribute__((visibility("default"))) int name(const char* path, int flags, ...)   \
    {                                                                                    \
        va_list ap;                                                                      \
        va_start(ap, flags);                                                             \
        mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(ap, mode_t) : 0;            \
        va_end(ap);                                                                      \
        return Intercept(path, flags, mode);                                             \
    }
TARVD_SHIM_OPEN(open)
TARVD_SHIM_OPEN(open64)

__attribute__((visibility("default"))) int __open_2(const char* path, int flags) { return Intercept(path, flags, 0); }
__attribute__((visibility("default"))) int __open64_2(const char* path, int flags) { return Intercept(path, flags, 0); }

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (fd >= 0 && fd == g_SmbusFd) {
        TestRecord("SHIM_RECORD", "ioctl request=0x%lX", request);
        if (request == IOCTL_SMBUS_DRIVER_INFO && arg) {
            auto* header = static_cast<SmbusRequestHeader*>(arg);
            SmbusDriverInfoBuffer* b = header->pInOutBuffer;
            TestRecord("SHIM_RECORD", "header version=%u cmd=0x%X size=%u success=%u", header->Version,
                       header->CmdNumber, header->SizeOfInOutBuffer, header->Success);
            if (b) {
                TestRecord("SHIM_RECORD", "in requestor=0x%08X name=%.*s", b->RequestorVersion,
                           static_cast<int>(sizeof b->RequestorName), b->RequestorName);
                TestRecord("SHIM_RECORD", "in TR_SYSTEM=%.*s", static_cast<int>(sizeof b->TR_SYSTEM), b->TR_SYSTEM);
                TestRecord("SHIM_RECORD", "in TR_OS=%.*s", static_cast<int>(sizeof b->TR_OS), b->TR_OS);
                TestRecord("SHIM_RECORD", "in TR_NICKNAME=%.*s", static_cast<int>(sizeof b->TR_NICKNAME),
                           b->TR_NICKNAME);
                unsigned nonZeroOut = 0;
                for (size_t i = 0; i < sizeof *b; ++i) {
                    bool in = (i >= 32 && i < 36) || (i >= 96 && i < 128) || (i >= 736 && i < 928);
                    if (!in && reinterpret_cast<const unsigned char*>(b)[i] != 0)
                        ++nonZeroOut;
                }
                TestRecord("SHIM_RECORD", "in nonzero-out-bytes=%u", nonZeroOut);
            }
            if (strcmp(Mode(), "fail") == 0) {
                errno = ENOTTY;
                return -1;
            }
            if (b) {
                b->OSKernelVersionCode = 0x00060112;
                b->smbus_VersionCode = 0x0A000001;  // newer than the daemon
                b->smbus_ArchMode = 2;
                b->smbus_IsSmbusHwFound = 1;
                b->smbus_MajorDeviceNumber = 240;
                Put(b->smbus_Name, "smbus");
                Put(b->smbus_SrcVersion, "10.0-1");
                memset(b->smbus_KernelVersion, 'K', sizeof b->smbus_KernelVersion);  // unterminated
                Put(b->smbus_ErrorReturnString, "none");
            }
            header->Success = 1;
            return 0;
        }
        errno = ENOTTY;
        return -1;
    }
    using IoctlFn = int (*)(int, unsigned long, ...);
    static IoctlFn real = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
    return real(fd, request, arg);
}

} // extern "C"
