// CSwitchApi: the daemon's side of the module framework boundary.  Loads the
// framework library, resolves its entry points, obtains its interface and
// guards the calls that may throw.
#pragma once

#include <cstdint>
#include <string>

#include "common/UniqueHandle.h"
#include "daemon/SwitchInterface.h"

class CSwitchApi {
public:
    /// `libraryName` is handed to dlopen as it is (default "libswitch.so",
    /// found on the loader's search path).
    explicit CSwitchApi(const char* libraryName = SWITCH_LIBRARY_NAME);
    /// Releases the library if it is still held (see Release()).
    ~CSwitchApi();
    CSwitchApi(const CSwitchApi&) = delete;
    CSwitchApi& operator=(const CSwitchApi&) = delete;

    /// Loads the library (unless a handle is already held), resolves
    /// SW_AddRef, SW_Release and SW_QueryInterface and asks for interface 0.
    /// @return true when an interface pointer is held afterwards.  When dlopen
    ///         fails the error is traced, errno kept in LastError() and the
    ///         result tells whether an interface from before is still held.
    bool LoadSwitch();
    /// Interface slot 2.  @return its result (low byte non-zero = success),
    /// 0 without interface or when the call throws (traced, not propagated).
    int LoadModules(_ExtensionModuleLoaderConfig& config);
    /// Interface slot 3.  @return its result, 0 without interface or when it throws.
    int UnloadModules(unsigned int value);
    /// Drops the interface, calls SW_Release once, closes the library and
    /// forgets the entry points.  Safe to call more than once.
    void Release();
    /// Closes a held library handle only (the daemon's fatal path).
    void CloseLibrary();

    SwitchInterface* Interface() const { return m_pInterface; }
    void* Handle() const { return m_hLibrary.Get(); }
    SW_AddRefFn AddRefEntry() const { return m_pfnAddRef; }
    SW_ReleaseFn ReleaseEntry() const { return m_pfnRelease; }
    SW_QueryInterfaceFn QueryInterfaceEntry() const { return m_pfnQueryInterface; }
    /// errno of the last failed dlopen, 0 when none.
    uint32_t LastError() const { return m_LastError; }

private:
    SW_AddRefFn m_pfnAddRef = nullptr;
    SW_ReleaseFn m_pfnRelease = nullptr;
    SW_QueryInterfaceFn m_pfnQueryInterface = nullptr;
    UniqueLibrary m_hLibrary;
    SwitchInterface* m_pInterface = nullptr;
    uint32_t m_LastError = 0;
    std::string m_LibraryName;
};
