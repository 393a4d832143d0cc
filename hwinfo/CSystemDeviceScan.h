// CSystemDeviceScan: the one object through which the agent learns the
// server's hardware.  Runs the scans in a fixed order, keeps their results,
// answers queries from any thread, and can keep the volume list fresh with
// a watcher thread.
#pragma once

#include <atomic>
#include <functional>

#include "common/CCriticalSection.h"
#include "hwinfo/CPciConfigList.h"
#include "hwinfo/CSystemDevices.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"

/// Options of a scan; accepted and not used.
struct _ScanOptions {
    int reserved = 0;
};

class CSystemDeviceScan {
public:
    /// Scan flag bits.
    enum : int {
        SCAN_ADAPTERS = 0x1,  ///< PCI slot data and adapters
        SCAN_DRIVES = 0x2,
        SCAN_WATCHER = 0x4,   ///< run the volume watcher thread
        SCAN_VOLUMES = 0x8,
        SCAN_ALL = -1,
    };
    /// How long a query waits for the lock.
    static constexpr unsigned int kQueryWaitMs = 90000;
    /// Default period of the volume watcher.
    static constexpr unsigned int kWatcherPeriodMs = 60000;
    /// How long a scan waits for the watcher to stop.
    static constexpr unsigned int kStopWatcherWaitMs = 5000;

    CSystemDeviceScan();
    /// Copies the lists; events, thread and flags are the copy's own.
    CSystemDeviceScan(const CSystemDeviceScan& other);
    CSystemDeviceScan& operator=(const CSystemDeviceScan& other);
    /// Stops the watcher thread.
    ~CSystemDeviceScan();

    /// Runs the scans selected by `flags` under the lock (waiting at most
    /// timeoutMs for it).  0 on success, -1 when the lock was not obtained.
    int ScanHardware(int flags, bool startWatcher, unsigned int timeoutMs, _ScanOptions* options = nullptr);
    int ScanDevices(int flags, bool startWatcher, unsigned int timeoutMs);
    /// Everything again; the watcher is restarted only if it runs now.
    int RescanHardware(unsigned int timeoutMs, _ScanOptions* options = nullptr);

    /// Starts the watcher when the stored flags have SCAN_WATCHER and the
    /// object is not terminating; always 1.
    int StartUpdateThread();
    /// Stops the watcher; 1 when it ended within timeoutMs (or did not run).
    int StopUpdateThread(unsigned int timeoutMs);
    /// Stops the watcher, lets a running scan or query finish (up to
    /// timeoutMs) and makes every later scan skip its sub-scans.  Returns 0.
    int Terminate(unsigned int timeoutMs);

    // Queries: each takes the lock (kQueryWaitMs); on time-out 0/false with
    // the output untouched.
    int GetAdapterCount();
    int GetDriveCount();
    int GetPartitionCount();
    int GetVolumeCount();
    /// Copy of the adapter at index; an index out of range throws
    /// std::out_of_range (the lock is released first).
    int GetAdapter(CSystemAdapter& adapter, int index);
    int GetDrive(CSystemDrive& drive, int index);
    int GetPartition(CSystemPartition& partition, int index);
    int GetVolume(CSystemVolume& volume, int index);
    int FindAdapter(CSystemAdapter& adapter, const char* deviceId);
    int FindAdapter(CSystemAdapter& adapter, const CPciAddress& address);
    int GetHostAdapter(CSystemAdapter& adapter, const CSystemDrive& drive);
    /// Appends the drives at the adapter's PCI address; true when the
    /// output list is non-empty afterwards.
    bool GetHostDrives(CSystemDriveList& drives, CSystemAdapter& adapter);
    int GetDiskPartitions(CSystemPartitionList& partitions, CSystemDrive& drive);

    bool IsUpdateThreadAlive() const { return m_UpdateThread.IsAlive(); }
    int GetScanFlags() const { return m_ScanFlags; }
    bool IsTerminating() const { return m_bTerminating; }

    /// Period of the volume watcher (tests shorten it).
    void SetWatcherPeriod(unsigned int ms) { m_WatcherPeriodMs = ms; }
    /// Called before each sub-scan with its flag bit (tests use it to hold
    /// the lock or to terminate in the middle of a scan).
    void SetSubScanHook(std::function<void(int)> hook) { m_SubScanHook = std::move(hook); }

private:
    void ClassCopy(const CSystemDeviceScan& other);
    bool Lock(unsigned int timeoutMs) { return m_AccessEvent.Wait(timeoutMs) == TR_WAIT_OBJECT_0; }
    void Unlock() { m_AccessEvent.Set(); }
    bool ScanSystemAdapters();
    bool ScanSystemDrives();
    bool ScanSystemVolumes();
    void ScanVolumes();
    void WatchPartitions();
    static void* LaunchAsThread_WatchPartitions(void* self);
    void Hook(int kind)
    {
        if (m_SubScanHook)
            m_SubScanHook(kind);
    }

    CSystemAdapterList m_Adapters;
    CSystemDriveList m_Drives;
    CPciConfigList m_PciConfigList;
    CCriticalSection m_PciConfigLock;
    CSystemVolumeList m_Volumes;
    CEvent m_AccessEvent{true, false};  // auto reset, signalled: the lock is free
    CThread m_UpdateThread;
    CEvent m_ExitEvent{false, true};    // manual reset
    int m_ScanFlags = 0;
    std::atomic<bool> m_bExitRequest{false};
    std::atomic<bool> m_bTerminating{false};
    std::atomic<unsigned int> m_WatcherPeriodMs{kWatcherPeriodMs};
    std::function<void(int)> m_SubScanHook;
};
