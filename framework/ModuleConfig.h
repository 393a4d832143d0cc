// Module configuration files of the framework: one small INI-style file per
// extension module in the modules directory ("*.conf").
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tarvdfw {

/// The default modules directory; TARVD_MODULES_DIR overrides it.
constexpr const char* kDefaultModulesDir = "/etc/tarvd/modules.d";
constexpr const char* kModulesDirVariable = "TARVD_MODULES_DIR";
/// Files larger than this, or with longer lines, are refused.
constexpr size_t kMaxConfigSize = 64 * 1024;
constexpr size_t kMaxLineLength = 1024;
constexpr int kDefaultOrder = 100;

struct ModuleDescriptor {
    std::string configFile;
    std::string name;        ///< Name=, default: the file name without ".conf"
    std::string library;     ///< Library=, relative paths are taken from the file's directory
    bool allRunModes = false;
    std::vector<uint32_t> runModes{0};  ///< RunModes=, default: 0 only
    int order = kDefaultOrder;          ///< Order=, lower starts first
    bool enabled = true;                ///< Enabled=0 skips the module
    std::vector<std::pair<std::string, std::string>> values;  ///< every Key=Value of the file

    bool RunsIn(uint32_t runMode) const;
    /// The value of `key` (compared without regard to case), null when absent.
    const char* Value(const char* key) const;
};

/// Reads one configuration file.  @return false (with `error` set) when the
/// file cannot be read, is too large, has an overlong or malformed line or
/// names no library; `out` is then unspecified.
bool ParseModuleConfig(const std::string& path, ModuleDescriptor& out, std::string& error);

/// The modules directory in effect (environment or default).
std::string ModulesDirectory();

/// The "*.conf" files of `dir`, sorted by name.  @return false when the
/// directory cannot be read; `error` (may be null) gets its errno, 0 on success.
bool ListModuleConfigs(const std::string& dir, std::vector<std::string>& files, int* error = nullptr);

} // namespace tarvdfw
