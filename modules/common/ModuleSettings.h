// Small helpers shared by the bundled modules: reading the module's own
// configuration values and formatting times for the registry.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "framework/tarvd_module.h"

namespace tarvdmod {

/// The value `key` of the module's configuration file, or null.
inline const char* ConfigText(const TarvdModuleConfig* config, const char* key)
{
    if (!config || !config->getValue)
        return nullptr;
    return config->getValue(config, key);
}

/// A decimal number `key` between `low` and `high`; `fallback` when the key
/// is absent, not a plain decimal number or out of range (the caller traces
/// through `bad`, set to true in the last two cases).
inline unsigned long ConfigNumber(const TarvdModuleConfig* config, const char* key, unsigned long fallback,
                                  unsigned long low, unsigned long high, bool* bad = nullptr)
{
    const char* text = ConfigText(config, key);
    if (!text)
        return fallback;
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || value < low || value > high) {
        if (bad)
            *bad = true;
        return fallback;
    }
    return value;
}

/// The current time as ISO 8601 text in UTC, e.g. "2024-05-01T12:34:56Z".
inline std::string IsoTimeUtc(time_t when = time(nullptr))
{
    struct tm parts {};
    if (!gmtime_r(&when, &parts))
        return "1970-01-01T00:00:00Z";
    char text[32];
    size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return n ? std::string(text, n) : std::string("1970-01-01T00:00:00Z");
}

} // namespace tarvdmod
