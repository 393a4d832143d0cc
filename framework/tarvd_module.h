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
 * (only `load` is mandatory).  Nothing should throw out of a module function;
 * the framework catches what does and reports it: a module that throws in
 * its entry point or in `load` is skipped (`unload` is called first when
 * `load` threw), one that throws in `start` is not started, and a throw in
 * `notify`, `stop` or `unload` is reported while the daemon carries on.  The
 * other modules are not affected.  Modules trace through the daemon's
 * `Debug` object (trace/CDebug.h).
 */
#ifndef TARVD_MODULE_H
#define TARVD_MODULE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Version of the module table's layout and calling rules (TarvdModuleV1)
 *  and of the configuration handed to load().  Interface 2 added
 *  `getModuleCounts` at the end of TarvdModuleConfig. */
#define TARVD_MODULE_INTERFACE_VERSION 2u
/** The oldest module interface this framework still loads: a module of
 *  interface 1 has the same table and never reads the added field.  A module
 *  built for a newer interface than the framework's is refused, since it
 *  would read past the shorter structure an older framework hands it. */
#define TARVD_MODULE_OLDEST_INTERFACE_VERSION 1u
/** Major version of libtarvd this header belongs to.  A module links the
 *  library's C++ classes, whose binary interface only holds within one
 *  major version; the build checks that this number matches the project's. */
#define TARVD_MODULE_LIBRARY_MAJOR 9u
/** The ABI version a module built against this header reports: the library's
 *  major version in the upper 16 bits, the table's interface version in the
 *  lower 16.  The framework loads a module only when both match its own. */
#define TARVD_MODULE_ABI_VERSION ((TARVD_MODULE_LIBRARY_MAJOR << 16) | TARVD_MODULE_INTERFACE_VERSION)
/** The library major version of an ABI version value. */
#define TARVD_MODULE_ABI_LIBRARY_MAJOR(abi) ((uint32_t)(abi) >> 16)
/** The module interface version of an ABI version value. */
#define TARVD_MODULE_ABI_INTERFACE(abi) ((uint32_t)(abi) & 0xFFFFu)
/** Whether a framework built with this header loads a module of `abi`. */
#define TARVD_MODULE_ABI_LOADABLE(abi)                                                                              \
    (TARVD_MODULE_ABI_LIBRARY_MAJOR(abi) == TARVD_MODULE_LIBRARY_MAJOR &&                                             \
     TARVD_MODULE_ABI_INTERFACE(abi) >= TARVD_MODULE_OLDEST_INTERFACE_VERSION &&                                      \
     TARVD_MODULE_ABI_INTERFACE(abi) <= TARVD_MODULE_INTERFACE_VERSION)
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
    /** The framework's own figures, for a module that reports the agent's
     *  health: `loaded` modules loaded now, `failed` modules of the current
     *  configuration that could not be loaded or started (a broken
     *  configuration file, a library that cannot be opened, a load or start
     *  that failed).  Unlike the rest of this structure the function may be
     *  kept and called from any thread while the module is loaded; it never
     *  blocks.  Set by every framework of interface 2 or later. */
    void (*getModuleCounts)(uint32_t* loaded, uint32_t* failed);
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

/** Exports a symbol from a module built with -fvisibility=hidden (as the
 *  examples are): the framework looks the entry point up with dlsym. */
#define TARVD_MODULE_EXPORT __attribute__((visibility("default")))

/** The entry point every module defines.  Declared here exported, so that
 *  the definition is exported whatever the module's default visibility. */
TARVD_MODULE_EXPORT const TarvdModuleV1* tarvd_module_v1(void);

#ifdef __cplusplus
}
#endif

#endif /* TARVD_MODULE_H */
