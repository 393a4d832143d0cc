// The module framework library "libswitch.so": finds the extension modules
// from their configuration files, loads them, and drives them for the
// daemon through the SwitchInterface boundary.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/UniqueHandle.h"
#include "daemon/SwitchInterface.h"
#include "framework/ModuleConfig.h"
#include "framework/tarvd_module.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"

namespace {

using namespace tarvdfw;

struct Module {
    ModuleDescriptor desc;
    UniqueLibrary library;
    const TarvdModuleV1* table = nullptr;
    bool started = false;
};

// The figures of getModuleCounts: atomics, read by modules' own threads
// without the framework's lock (which is held while a module stops and
// waits for those very threads).
std::atomic<uint32_t> g_LoadedCount{0};
std::atomic<uint32_t> g_FailedCount{0};

void ModuleCounts(uint32_t* loaded, uint32_t* failed)
{
    if (loaded)
        *loaded = g_LoadedCount.load(std::memory_order_relaxed);
    if (failed)
        *failed = g_FailedCount.load(std::memory_order_relaxed);
}

const char* ConfigValue(const TarvdModuleConfig* config, const char* key)
{
    if (!config || !config->reserved)
        return nullptr;
    return static_cast<const ModuleDescriptor*>(config->reserved)->Value(key);
}

class CSwitchFramework final : public SwitchInterface {
public:
    uint32_t GetInterfaceVersion() override { return SWITCH_INTERFACE_VERSION; }

    uint32_t ReleaseInterface() override { return Unref(); }

    int LoadModules(_ExtensionModuleLoaderConfig* config) override
    {
        try {
            std::lock_guard guard(m_Lock);
            if (!config) {
                DBG_PRINT(1, "\nSWITCH              : ## ERROR! LoadModules without configuration");
                return 0;
            }
            if (m_Loaded) {
                DBG_PRINT(2, "\nSWITCH              : modules are already loaded");
                return 1;
            }
            m_Config = *config;
            g_FailedCount = 0;
            std::string dir = ModulesDirectory();
            DBG_PRINT(2, "\nSWITCH              : loading modules from %s (run mode %u, flags 0x%X)", dir.c_str(),
                      m_Config.RunMode, m_Config.Flags);
            std::vector<std::string> files;
            int listError = 0;
            ListModuleConfigs(dir, files, &listError);
            if (listError == ENOENT) {
                // A machine without modules installed has no directory for
                // them: nothing is configured, which is not a failure.
                DBG_PRINT(2, "\nSWITCH              : the modules directory %s is missing: no modules configured",
                          dir.c_str());
            } else if (listError != 0) {
                ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! cannot read the modules directory %s (errno=%d: %s)",
                          dir.c_str(), listError, strerror(listError));
                return 0;
            }
            std::vector<ModuleDescriptor> wanted;
            for (const auto& file : files) {
                ModuleDescriptor desc;
                std::string error;
                if (!ParseModuleConfig(file, desc, error)) {
                    ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! %s -> module skipped", error.c_str());
                    ++g_FailedCount;
                    continue;
                }
                if (!desc.enabled) {
                    DBG_PRINT(2, "\nSWITCH              : module %s is disabled", desc.name.c_str());
                    continue;
                }
                if (!desc.RunsIn(m_Config.RunMode)) {
                    DBG_PRINT(2, "\nSWITCH              : module %s does not run in run mode %u", desc.name.c_str(),
                              m_Config.RunMode);
                    continue;
                }
                wanted.push_back(std::move(desc));
            }
            std::stable_sort(wanted.begin(), wanted.end(),
                             [](const ModuleDescriptor& a, const ModuleDescriptor& b) { return a.order < b.order; });
            for (auto& desc : wanted)
                if (!LoadOne(std::move(desc)))
                    ++g_FailedCount;
            m_Loaded = true;
            DBG_PRINT(2, "\nSWITCH              : %zu module(s) loaded", m_Modules.size());
            return 1;
        } catch (...) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! exception while loading the modules");
            return 0;
        }
    }

    int UnloadModules(uint32_t) override
    {
        try {
            std::lock_guard guard(m_Lock);
            UnloadAll();
            return 1;
        } catch (...) {
            return 0;
        }
    }

    int StartAllModules() override
    {
        try {
            std::lock_guard guard(m_Lock);
            int started = 0;
            for (auto& m : m_Modules) {
                if (m->started)
                    continue;
                bool ok = true;
                try {
                    ok = !m->table->start || m->table->start() != 0;
                } catch (...) {
                    ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s threw in start", m->desc.name.c_str());
                    ok = false;
                }
                if (ok) {
                    m->started = true;
                    ++started;
                    DBG_PRINT(3, "\nSWITCH              : module %s started", m->desc.name.c_str());
                } else {
                    ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s failed to start", m->desc.name.c_str());
                    ++g_FailedCount;
                }
            }
            return started;
        } catch (...) {
            return 0;
        }
    }

    int StopAllModules() override
    {
        try {
            std::lock_guard guard(m_Lock);
            StopAll();
            return 1;
        } catch (...) {
            return 0;
        }
    }

    int Reserved6() override { return 0; }
    int Reserved7() override { return 0; }
    int Reserved8() override { return 0; }
    int Reserved9() override { return 0; }
    int Reserved10() override { return 0; }
    int Reserved11() override { return 0; }
    int Reserved12() override { return 0; }
    int Reserved13() override { return 0; }
    int Reserved14() override { return 0; }
    int Reserved15() override { return 0; }

    int NotifySystemEvent(uint32_t event, void* data, uint32_t) override
    {
        try {
            std::lock_guard guard(m_Lock);
            if (event == SW_EVENT_OS_SHUTDOWN && data)
                DBG_PRINT(2, "\nSWITCH              : event 0x%X (run level %d) to %zu module(s)", event,
                          *static_cast<const int32_t*>(data), m_Modules.size());
            else
                DBG_PRINT(2, "\nSWITCH              : event 0x%X to %zu module(s)", event, m_Modules.size());
            for (auto& m : m_Modules) {
                if (!m->table->notify)
                    continue;
                try {
                    m->table->notify(event, data);
                } catch (...) {
                    DBG_PRINT(1, "\nSWITCH              : ## ERROR! module %s threw in notify", m->desc.name.c_str());
                }
            }
            return 1;
        } catch (...) {
            return 0;
        }
    }

    bool Query(uint32_t id, SwitchInterface** out)
    {
        if (!out || id != 0)
            return false;
        std::lock_guard guard(m_Lock);
        ++m_RefCount;
        *out = this;
        return true;
    }

    uint32_t AddRef()
    {
        std::lock_guard guard(m_Lock);
        return ++m_RefCount;
    }

    /// The last reference gone: nothing of the modules may outlive the
    /// library, which the daemon closes right after.
    uint32_t Unref()
    {
        try {
            std::lock_guard guard(m_Lock);
            if (m_RefCount > 0)
                --m_RefCount;
            if (m_RefCount == 0)
                UnloadAll();
            return m_RefCount;
        } catch (...) {
            return 0;
        }
    }

    ~CSwitchFramework()
    {
        try {
            UnloadAll();
        } catch (...) {
        }
    }

private:
    /// false when the module was skipped (traced).
    bool LoadOne(ModuleDescriptor desc)
    {
        auto m = std::make_unique<Module>();
        m->desc = std::move(desc);
        const char* name = m->desc.name.c_str();
        // RTLD_LOCAL: modules do not see each other's symbols.
        UniqueLibrary lib(dlopen(m->desc.library.c_str(), RTLD_NOW | RTLD_LOCAL));
        if (!lib.Get()) {
            const char* e = dlerror();
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s: cannot load %s: %s -> skipped", name,
                      m->desc.library.c_str(), e ? e : "");
            return false;
        }
        auto entry = reinterpret_cast<TarvdModuleEntry>(dlsym(lib.Get(), TARVD_MODULE_ENTRY));
        if (!entry) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s: %s exports no %s -> skipped", name,
                      m->desc.library.c_str(), TARVD_MODULE_ENTRY);
            return false;
        }
        const TarvdModuleV1* table = nullptr;
        try {
            table = entry();
        } catch (...) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s threw in %s -> skipped", name, TARVD_MODULE_ENTRY);
            return false;
        }
        if (!table) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s: %s returned no module table -> skipped", name,
                      TARVD_MODULE_ENTRY);
            return false;
        }
        if (!TARVD_MODULE_ABI_LOADABLE(table->abiVersion)) {
            // Say what the module was built for, so that an administrator
            // sees at once which side has to be rebuilt or updated.
            ReportFailure(SysLogTraces::SL_ERR,
                      "\nSWITCH              : ## ERROR! module %s: incompatible ABI version 0x%08X (built for libtarvd "
                      "%u, module interface %u); this framework needs 0x%08X (libtarvd %u, module interface %u) -> "
                      "skipped, rebuild the module against this version",
                      name, table->abiVersion, TARVD_MODULE_ABI_LIBRARY_MAJOR(table->abiVersion),
                      TARVD_MODULE_ABI_INTERFACE(table->abiVersion), TARVD_MODULE_ABI_VERSION,
                      TARVD_MODULE_ABI_LIBRARY_MAJOR(TARVD_MODULE_ABI_VERSION),
                      TARVD_MODULE_ABI_INTERFACE(TARVD_MODULE_ABI_VERSION));
            return false;
        }
        if (!table->load) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s: the module table has no load function -> skipped",
                      name);
            return false;
        }
        TarvdModuleConfig config{};
        config.abiVersion = TARVD_MODULE_ABI_VERSION;
        config.runMode = m_Config.RunMode;
        config.flags = m_Config.Flags;
        config.name = name;
        config.configFile = m->desc.configFile.c_str();
        config.getValue = ConfigValue;
        config.reserved = &m->desc;
        config.getModuleCounts = ModuleCounts;
        int ok = 0;
        try {
            ok = table->load(&config);
        } catch (...) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s threw in load -> skipped", name);
            ok = 0;
            // A module that threw may have half-initialised itself: give it
            // the chance to clean up before it is closed.
            CallUnload(table, name);
            return false;
        }
        if (!ok) {
            ReportFailure(SysLogTraces::SL_ERR, "\nSWITCH              : ## ERROR! module %s failed to load -> skipped", name);
            return false;
        }
        m->library = std::move(lib);
        m->table = table;
        DBG_PRINT(2, "\nSWITCH              : module %s loaded from %s", name, m->desc.library.c_str());
        m_Modules.push_back(std::move(m));
        g_LoadedCount = static_cast<uint32_t>(m_Modules.size());
        return true;
    }

    static void CallUnload(const TarvdModuleV1* table, const char* name)
    {
        if (!table->unload)
            return;
        try {
            table->unload();
        } catch (...) {
            DBG_PRINT(1, "\nSWITCH              : ## ERROR! module %s threw in unload", name);
        }
    }

    void StopAll()
    {
        for (auto it = m_Modules.rbegin(); it != m_Modules.rend(); ++it) {
            Module& m = **it;
            if (!m.started)
                continue;
            m.started = false;
            if (!m.table->stop)
                continue;
            try {
                m.table->stop();
                DBG_PRINT(3, "\nSWITCH              : module %s stopped", m.desc.name.c_str());
            } catch (...) {
                DBG_PRINT(1, "\nSWITCH              : ## ERROR! module %s threw in stop", m.desc.name.c_str());
            }
        }
    }

    void UnloadAll()
    {
        StopAll();
        while (!m_Modules.empty()) {
            std::unique_ptr<Module> m = std::move(m_Modules.back());
            m_Modules.pop_back();
            g_LoadedCount = static_cast<uint32_t>(m_Modules.size());
            CallUnload(m->table, m->desc.name.c_str());
            DBG_PRINT(3, "\nSWITCH              : module %s unloaded", m->desc.name.c_str());
        }
        m_Loaded = false;
    }

    std::recursive_mutex m_Lock;
    std::vector<std::unique_ptr<Module>> m_Modules;
    _ExtensionModuleLoaderConfig m_Config{0, 0};
    uint32_t m_RefCount = 0;
    bool m_Loaded = false;
};

CSwitchFramework g_Framework;

} // namespace

extern "C" {

__attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t id, SwitchInterface** out)
{
    try {
        return g_Framework.Query(id, out);
    } catch (...) {
        return false;
    }
}

__attribute__((visibility("default"))) uint32_t SW_AddRef()
{
    try {
        return g_Framework.AddRef();
    } catch (...) {
        return 0;
    }
}

__attribute__((visibility("default"))) uint32_t SW_Release()
{
    return g_Framework.Unref();
}

} // extern "C"
