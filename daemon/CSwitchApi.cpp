#include "daemon/CSwitchApi.h"

#include <cerrno>
#include <dlfcn.h>
#include <string>

#include "trace/CDebug.h"

namespace {

// The framework is a private plug-in in the agent's own library directory,
// which the library's RUNPATH names.  A loader that interposes dlopen (the
// sanitizer runtimes, some preloaded tools) becomes the "caller" whose
// search path is used instead, so a bare name the search did not find is
// tried in that directory once more.  The failure reported stays the
// search's own.
void* OpenPrivatePlugin([[maybe_unused]] const std::string& name)
{
#ifdef TARVD_PRIVATE_PLUGIN_DIR
    if (name.find('/') == std::string::npos)
        return dlopen((std::string(TARVD_PRIVATE_PLUGIN_DIR "/") + name).c_str(), RTLD_NOW | RTLD_GLOBAL);
#endif
    return nullptr;
}

}  // namespace

CSwitchApi::CSwitchApi(const char* libraryName) : m_LibraryName(libraryName ? libraryName : SWITCH_LIBRARY_NAME) {}

CSwitchApi::~CSwitchApi()
{
    Release();
}

bool CSwitchApi::LoadSwitch()
{
    if (!m_hLibrary) {
        // RTLD_GLOBAL: the modules the framework loads bind to its symbols.
        m_hLibrary.Reset(dlopen(m_LibraryName.c_str(), RTLD_NOW | RTLD_GLOBAL));
        if (!m_hLibrary) {
            int err = errno;
            const char* error = dlerror();
            const std::string text = error ? error : "";
            m_hLibrary.Reset(OpenPrivatePlugin(m_LibraryName));
            if (!m_hLibrary) {
                DBG_PRINT(1, "LoadLibrary: ## ERROR:  %s\n", text.c_str());
                m_LastError = static_cast<uint32_t>(err);
                return m_pInterface != nullptr;
            }
        }
    }
    m_pfnAddRef = reinterpret_cast<SW_AddRefFn>(dlsym(m_hLibrary.Get(), "SW_AddRef"));
    m_pfnRelease = reinterpret_cast<SW_ReleaseFn>(dlsym(m_hLibrary.Get(), "SW_Release"));
    m_pfnQueryInterface = reinterpret_cast<SW_QueryInterfaceFn>(dlsym(m_hLibrary.Get(), "SW_QueryInterface"));
    if (m_pfnQueryInterface) {
        if (!m_pfnQueryInterface(0, &m_pInterface)) {
            m_pInterface = nullptr;
            return false;
        }
    }
    return m_pInterface != nullptr;
}

int CSwitchApi::LoadModules(_ExtensionModuleLoaderConfig& config)
{
    // The number shown has bit 0 forced on, so it is odd whatever the
    // command line said; scripts reading the trace rely on this line as it is.
    DBG_PRINT(3, "\nSWITCH API          : Loading modules, force rescan = %d", config.Flags | 1u);
    try {
        if (!m_pInterface) {
            DBG_PRINT(1, "\n\nSWITCH API          : ## ERROR! Loading modules FAILED!\n");
            return 0;
        }
        return m_pInterface->LoadModules(&config);
    } catch (...) {
        DBG_PRINT(1, "\nSWITCH DLL - Exception during LoadModules");
        DBG_PRINT(1, "\n\nSWITCH API          : ## ERROR! Loading modules FAILED!\n");
        return 0;
    }
}

int CSwitchApi::UnloadModules(unsigned int value)
{
    DBG_PRINT(3, "\nSWITCH API          : Unloading modules...");
    try {
        if (!m_pInterface) {
            DBG_PRINT(1, "\n\nSWITCH API          : ## ERROR! Unloading modules FAILED!\n");
            return 0;
        }
        return m_pInterface->UnloadModules(value);
    } catch (...) {
        DBG_PRINT(1, "\nSWITCH DLL - Exception during UnloadModules");
        DBG_PRINT(1, "\n\nSWITCH API          : ## ERROR! Unloading modules FAILED!\n");
        return 0;
    }
}

void CSwitchApi::Release()
{
    // The interface is dropped before SW_Release, so slot 1 is never called
    // here: the library tears its interface down in SW_Release itself.
    SW_ReleaseFn release = m_pfnRelease;
    m_pInterface = nullptr;
    if (release)
        release();
    CloseLibrary();
}

void CSwitchApi::CloseLibrary()
{
    // Nothing from the library may be called once it is closed.
    m_pInterface = nullptr;
    m_pfnAddRef = nullptr;
    m_pfnRelease = nullptr;
    m_pfnQueryInterface = nullptr;
    m_hLibrary.Reset();
}
