// Fixed paths of the hardware inventory, all in one place, and the one seam
// that moves them under another root directory (tests, or an operator
// replaying a captured snapshot of a machine).
#pragma once

#include <string>

namespace hwinfo {

/// Kernel copies of the SMBIOS entry point and structure table.
inline constexpr const char* kSysfsSmbiosEntryPoint = "/sys/firmware/dmi/tables/smbios_entry_point";
inline constexpr const char* kSysfsSmbiosTable = "/sys/firmware/dmi/tables/DMI";
/// UEFI system table key=value files (newer and older kernels).
inline constexpr const char* kEfiSystabSysfs = "/sys/firmware/efi/systab";
inline constexpr const char* kEfiSystabProc = "/proc/efi/systab";
/// Physical memory.  A regular file in its place (a snapshot) is read at the
/// physical offset.
inline constexpr const char* kPhysicalMemoryDevice = "/dev/mem";
/// Entry point followed by the structure table on a VMware ESX host.
inline constexpr const char* kEsxSmbiosDevice = "/vmfs/devices/char/mem/smbios";
/// PCI configuration space files.
inline constexpr const char* kProcBusPci = "/proc/bus/pci";
/// Adapter names (see CSystemAdapter.h for the format).
inline constexpr const char* kAdapterIniFile = "/etc/tarvd/Adapter.ini";
/// Block devices.
inline constexpr const char* kSysBlock = "/sys/block";
/// Mount table of the process.
inline constexpr const char* kMountTable = "/proc/self/mounts";

/// Sets the directory under which every path above is read.  Null or "" (or
/// "/") restores the real root.  Not synchronised: set it before scanning.
void SetRootDirectory(const char* root);
/// The current root prefix ("" for the real root).
const std::string& GetRootDirectory();
/// `path` (absolute) under the current root.
std::string RootedPath(const char* path);
inline std::string RootedPath(const std::string& path) { return RootedPath(path.c_str()); }

} // namespace hwinfo
