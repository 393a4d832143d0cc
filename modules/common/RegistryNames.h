// The names of the subkeys and values of a registry key, as the bundled
// modules list them to compare what is stored with what they publish.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "registry/CRegistry.h"
#include "registry/CRegistryNode.h"

namespace tarvdmod {

/// Longest name read back (registry names are shorter in practice).
inline constexpr unsigned kRegistryNameBuffer = 256;

/// Names of the subkeys of the current key of `reg`.
inline std::vector<std::string> SubKeyNames(CRegistry& reg)
{
    std::vector<std::string> names;
    for (unsigned index = 0;; ++index) {
        char name[kRegistryNameBuffer];
        unsigned size = sizeof name;
        if (reg.EnumKey(name, &size, index) != CRegistry::kOk)
            break;
        names.emplace_back(name, strnlen(name, sizeof name));
    }
    return names;
}

/// Names of the values of the current key of `reg`.
inline std::vector<std::string> ValueNames(CRegistry& reg)
{
    std::vector<std::string> names;
    for (unsigned index = 0;; ++index) {
        char name[kRegistryNameBuffer];
        unsigned size = sizeof name;
        if (reg.EnumVal(name, &size, index, RegAnyValue, nullptr, nullptr) != CRegistry::kOk)
            break;
        names.emplace_back(name, strnlen(name, sizeof name));
    }
    return names;
}

} // namespace tarvdmod
