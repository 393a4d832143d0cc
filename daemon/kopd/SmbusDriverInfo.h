// Wire format of the smbus driver's IOCTL_SMBUS_DRIVER_INFO request
// (little-endian, x86-64).  The layout is fixed by the kernel driver.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr const char* SMBUS_DEVICE_PATH = "/dev/pci/smbus";
/// _IOWR('s', 0xFF, void*): read-write, type 0x73, number 0xFF, size 8.
constexpr unsigned long IOCTL_SMBUS_DRIVER_INFO = 0xC00873FFul;
constexpr uint32_t SMBUS_REQUEST_VERSION = 1;
constexpr uint32_t SMBUS_CMD_DRIVER_INFO = 0xFF;

/// The 1312-byte in/out buffer.  "in" fields are filled by the daemon, all
/// others by the driver; text fields need not be NUL-terminated.
struct __attribute__((packed)) SmbusDriverInfoBuffer {
    uint32_t OSKernelVersionCode;
    uint8_t reserved1[12];
    uint32_t smbus_VersionCode;
    uint32_t smbus_ArchMode;
    uint32_t smbus_ArchXEN;
    uint32_t smbus_ArchFacil;
    uint32_t RequestorVersion;  // in
    uint8_t reserved2[12];
    uint8_t smbus_IsSmbiHwFound;
    uint8_t smbus_IsBapiHwFound;
    uint8_t smbus_IsGabiHwFound;
    uint8_t smbus_IsSmbusHwFound;
    uint8_t smbus_IsBusIoHwFound;
    uint8_t smbus_IsCpuErrHwFound;
    uint8_t smbus_IsCpuApicHwFound;
    uint8_t smbus_IsCpuInfoHwFound;
    uint8_t reserved3[8];
    uint32_t smbus_MajorDeviceNumber;
    uint32_t smbus_IsKmpModule;
    uint8_t reserved4[24];
    char RequestorName[32];  // in
    char smbus_Name[32];
    char smbus_SrcVersion[64];
    char smbus_SrcDate[64];
    char smbus_ObjDate[64];
    char smbus_OsArchitecture[32];
    char smbus_OsVersion[64];
    char smbus_CompilerVersion[128];
    char smbus_KernelVersion[160];
    char TR_SYSTEM[32];    // in
    char TR_OS[128];       // in
    char TR_NICKNAME[32];  // in
    char smbus_ErrorReturnString[384];
};

/// The 32-byte request header; the ioctl argument is its address.
struct __attribute__((packed)) SmbusRequestHeader {
    uint32_t Version;
    uint32_t CmdNumber;
    uint32_t SizeOfInOutBuffer;
    uint32_t reserved1;
    SmbusDriverInfoBuffer* pInOutBuffer;
    uint32_t Success;
    uint32_t reserved2;
};

static_assert(sizeof(SmbusRequestHeader) == 32);
static_assert(offsetof(SmbusRequestHeader, Version) == 0);
static_assert(offsetof(SmbusRequestHeader, CmdNumber) == 4);
static_assert(offsetof(SmbusRequestHeader, SizeOfInOutBuffer) == 8);
static_assert(offsetof(SmbusRequestHeader, reserved1) == 12);
static_assert(offsetof(SmbusRequestHeader, pInOutBuffer) == 16);
static_assert(offsetof(SmbusRequestHeader, Success) == 24);
static_assert(offsetof(SmbusRequestHeader, reserved2) == 28);

static_assert(sizeof(SmbusDriverInfoBuffer) == 1312);
static_assert(offsetof(SmbusDriverInfoBuffer, OSKernelVersionCode) == 0);
static_assert(offsetof(SmbusDriverInfoBuffer, reserved1) == 4);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_VersionCode) == 16);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_ArchMode) == 20);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_ArchXEN) == 24);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_ArchFacil) == 28);
static_assert(offsetof(SmbusDriverInfoBuffer, RequestorVersion) == 32);
static_assert(offsetof(SmbusDriverInfoBuffer, reserved2) == 36);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsSmbiHwFound) == 48);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsBapiHwFound) == 49);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsGabiHwFound) == 50);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsSmbusHwFound) == 51);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsBusIoHwFound) == 52);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsCpuErrHwFound) == 53);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsCpuApicHwFound) == 54);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsCpuInfoHwFound) == 55);
static_assert(offsetof(SmbusDriverInfoBuffer, reserved3) == 56);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_MajorDeviceNumber) == 64);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_IsKmpModule) == 68);
static_assert(offsetof(SmbusDriverInfoBuffer, reserved4) == 72);
static_assert(offsetof(SmbusDriverInfoBuffer, RequestorName) == 96);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_Name) == 128);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_SrcVersion) == 160);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_SrcDate) == 224);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_ObjDate) == 288);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_OsArchitecture) == 352);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_OsVersion) == 384);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_CompilerVersion) == 448);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_KernelVersion) == 576);
static_assert(offsetof(SmbusDriverInfoBuffer, TR_SYSTEM) == 736);
static_assert(offsetof(SmbusDriverInfoBuffer, TR_OS) == 768);
static_assert(offsetof(SmbusDriverInfoBuffer, TR_NICKNAME) == 896);
static_assert(offsetof(SmbusDriverInfoBuffer, smbus_ErrorReturnString) == 928);
