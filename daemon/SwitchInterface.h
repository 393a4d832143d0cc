// The boundary between the daemon and the module framework library
// "libswitch.so".  Both sides include this header; its layouts are a binary
// interface (x86-64, Itanium C++ ABI): do not reorder, insert or remove
// virtual operations, and do not add a virtual destructor (it would take two
// slots and move every operation after it).
#pragma once

#include <cstddef>
#include <cstdint>

/// Configuration record handed to the framework when the modules are loaded.
struct _ExtensionModuleLoaderConfig {
    uint32_t Flags;    ///< bit 0: force rescan (-rescan); other bits 0
    uint32_t RunMode;  ///< 0, 5, 7, 8 or 10 (see the daemon's command line)
};
static_assert(sizeof(_ExtensionModuleLoaderConfig) == 8);
static_assert(offsetof(_ExtensionModuleLoaderConfig, Flags) == 0);
static_assert(offsetof(_ExtensionModuleLoaderConfig, RunMode) == 4);

/// Bit 0 of `_ExtensionModuleLoaderConfig::Flags`.
constexpr uint32_t SW_FLAG_FORCE_RESCAN = 0x1;

/// Run modes (`_ExtensionModuleLoaderConfig::RunMode`).
constexpr uint32_t SW_RUNMODE_FULL = 0;
constexpr uint32_t SW_RUNMODE_AGENTLESS = 5;
constexpr uint32_t SW_RUNMODE_TINST = 7;
constexpr uint32_t SW_RUNMODE_TUPD = 8;
constexpr uint32_t SW_RUNMODE_TUPD_AGENTLESS = 10;

/// Event codes of `SwitchInterface::NotifySystemEvent`.
/// The daemon is about to stop; data is null.
constexpr uint32_t SW_EVENT_DAEMON_STOPPING = 0x20000;
/// The operating system halts (run level 0) or reboots (6); data points to
/// the signed 32-bit run level.
constexpr uint32_t SW_EVENT_OS_SHUTDOWN = 0x30000;

/// The framework's one interface object.  The slot number of each virtual
/// operation is given in brackets; the daemon calls slots 1 to 5 and 16.
class SwitchInterface {
public:
    /// [0] The interface version (SWITCH_INTERFACE_VERSION).  Not used by the daemon.
    virtual uint32_t GetInterfaceVersion() = 0;
    /// [1] Lets go of the interface.
    virtual uint32_t ReleaseInterface() = 0;
    /// [2] Finds and loads the extension modules.  Low byte non-zero = success.
    virtual int LoadModules(_ExtensionModuleLoaderConfig* config) = 0;
    /// [3] Unloads every module; returns only when no module code runs any more.
    virtual int UnloadModules(uint32_t reserved) = 0;
    /// [4] Starts every loaded module.
    virtual int StartAllModules() = 0;
    /// [5] Stops every started module; returns only when all module activity has ended.
    virtual int StopAllModules() = 0;
    /// [6] .. [15] Reserved; present so that slot 16 stays where it is.
    virtual int Reserved6() = 0;
    virtual int Reserved7() = 0;
    virtual int Reserved8() = 0;
    virtual int Reserved9() = 0;
    virtual int Reserved10() = 0;
    virtual int Reserved11() = 0;
    virtual int Reserved12() = 0;
    virtual int Reserved13() = 0;
    virtual int Reserved14() = 0;
    virtual int Reserved15() = 0;
    /// [16] Tells the framework of a system event (SW_EVENT_*); `reserved` is 0.
    virtual int NotifySystemEvent(uint32_t event, void* data, uint32_t reserved) = 0;

protected:
    // Objects are owned by the library; nobody deletes them through this type.
    ~SwitchInterface() = default;
};

constexpr uint32_t SWITCH_INTERFACE_VERSION = 1;
/// Number of slots in the virtual table of SwitchInterface.
constexpr int SWITCH_INTERFACE_SLOTS = 17;

/// The library's exported entry points (plain C names).
extern "C" {
using SW_QueryInterfaceFn = bool (*)(uint32_t id, SwitchInterface** out);
using SW_AddRefFn = uint32_t (*)();
using SW_ReleaseFn = uint32_t (*)();
}

/// The file name of the framework library, found on the loader's search path.
constexpr const char* SWITCH_LIBRARY_NAME = "libswitch.so";
