// Directory listings of the hardware inventory's sysfs and procfs trees.
#pragma once

#include <string>
#include <vector>

namespace hwinfo {

/// The entry names of `dir` ("." and ".." included) in alphasort order.
/// False (errno set, `names` unchanged) when the directory cannot be listed.
bool ListDirectory(const std::string& dir, std::vector<std::string>& names);

/// Reads exactly `n` hexadecimal digits at `s` into `value`; false when any
/// of them is not a hexadecimal digit.
bool ParseHexField(const char* s, size_t n, unsigned& value);

} // namespace hwinfo
