/* tarvd_module.h: the interface between the module framework (libswitch.so)
 * and an extension module.
 *
 * A module is a shared object that exports one C function,
 *
 *     const TarvdModuleV1* tarvd_module_v1(void);
 *
 * returning a table that lives as long as the module is loaded.  The
 * framework finds modules through small configuration files (see README,
 * "Running the daemon"), loads each with dlopen and calls, from one thread:
 *
 *     load(config)      once, after dlopen; non-zero = loaded
 *     start()           once, when the daemon starts all modules; non-zero = started
 *     notify(ev, data)  for system events (TARVD_EVENT_*), between start and stop
 *     stop()            once, if started; must not return before every
 *                       thread and timer of the module has ended
 *     unload()          once, before dlclose
 *
 * A function may be null when the module has nothing to do at that point
 * (only `load` is mandatory).  A module that throws is reported and skipped;
 * the other modules are not affected.  Modules trace through the daemon's
 * `Debug` object (trace/CDebug.h).
 */
#ifndef TARVD_MODULE_H
#define TARVD_MODULE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The ABI version a module built against this header reports. */
#define TARVD_MODULE_ABI_VERSION 1u
/** The name of the entry point every module exports. */
#define TARVD_MODULE_ENTRY "tarvd_module_v1"

/** Configuration flag: the daemon was started with -rescan. */
#define TARVD_FLAG_FORCE_RESCAN 0x1u

/** System events passed to notify(). */
#define TARVD_EVENT_DAEMON_STOPPING 0x20000u /**< data is null */
#define TARVD_EVENT_OS_SHUTDOWN 0x30000u     /**< data points to the int32_t run level (0 halt, 6 reboot) */

/** What the framework hands to load(); valid during the call only (copy what you keep). */
typedef struct TarvdModuleConfig {
    uint32_t abiVersion;     /**< TARVD_MODULE_ABI_VERSION of the framework */
    uint32_t runMode;        /**< the daemon's run mode (0 full agent, 5, 7, 8, 10) */
    uint32_t flags;          /**< TARVD_FLAG_* */
    const char* name;        /**< the module's name from its configuration file */
    const char* configFile;  /**< path of the module's configuration file */
    /** A value of the module's configuration file ("Key=Value"), null when absent. */
    const char* (*getValue)(const struct TarvdModuleConfig* config, const char* key);
    const void* reserved;    /**< framework internal */
} TarvdModuleConfig;

typedef struct TarvdModuleV1 {
    uint32_t abiVersion; /**< must be TARVD_MODULE_ABI_VERSION */
    const char* name;    /**< for the trace */
    int (*load)(const TarvdModuleConfig* config);
    int (*start)(void);
    void (*stop)(void);
    void (*notify)(uint32_t event, const void* data);
    void (*unload)(void);
} TarvdModuleV1;

typedef const TarvdModuleV1* (*TarvdModuleEntry)(void);

#ifdef __cplusplus
}
#endif

#endif /* TARVD_MODULE_H */
