#include "hwinfo/CSystemDeviceScan.h"

#include <stdexcept>

#include "trace/CDebug.h"

namespace {

// Releases the access event (the object's lock) when it goes out of scope.
class AccessGuard {
public:
    explicit AccessGuard(CEvent& e) : m_Event(e) {}
    ~AccessGuard() { m_Event.Set(); }
    AccessGuard(const AccessGuard&) = delete;
    AccessGuard& operator=(const AccessGuard&) = delete;

private:
    CEvent& m_Event;
};

} // namespace

CSystemDeviceScan::CSystemDeviceScan() = default;

CSystemDeviceScan::CSystemDeviceScan(const CSystemDeviceScan& other)
{
    ClassCopy(other);
}

CSystemDeviceScan& CSystemDeviceScan::operator=(const CSystemDeviceScan& other)
{
    if (this != &other)
        ClassCopy(other);
    return *this;
}

CSystemDeviceScan::~CSystemDeviceScan()
{
    StopUpdateThread(kStopWatcherWaitMs);
    DBG_PRINT(2, "\nCSystemDeviceScan   : CLASS DESTROYED!\n");
}

void CSystemDeviceScan::ClassCopy(const CSystemDeviceScan& other)
{
    DBG_PRINT(5, "\nCSystemDeviceScan   : -> ClassCopy()");
    m_Adapters = other.m_Adapters;
    m_Drives = other.m_Drives;
    m_PciConfigList = other.m_PciConfigList;
    m_Volumes = other.m_Volumes;
    DBG_PRINT(5, "\nCSystemDeviceScan   : <- ClassCopy()");
}

// ---------------------------------------------------------------------------
// Scanning

int CSystemDeviceScan::ScanHardware(int flags, bool startWatcher, unsigned int timeoutMs, _ScanOptions*)
{
    DBG_PRINT(4, "\nCSystemDeviceScan   : -> ScanHardware()");
    DBG_PRINT(3, "\nCSystemDeviceScan   : Waiting %d msec for pending hardware scan operation ...", timeoutMs);
    if (!Lock(timeoutMs)) {
        DBG_PRINT(1, "\nCSystemDeviceScan   : ## WARNING! Time out waiting for end of pending hardware scan! (%d msec)\n",
                  timeoutMs);
        DBG_PRINT(1, "\nCSystemDeviceScan   : ... hardware scan completed (%s)!\n\n", "FAILED");
        return -1;
    }
    {
        AccessGuard guard(m_AccessEvent);
        m_ScanFlags = flags;
        DBG_PRINT(1, "\nCSystemDeviceScan   : Start hardware rescan ...");
        StopUpdateThread(kStopWatcherWaitMs);

        if ((flags & SCAN_ADAPTERS) != 0) {
            if (!m_bTerminating) {
                Hook(SCAN_ADAPTERS);
                DBG_PRINT(3, "\nCSystemDeviceScan   : Scan PCI slot data ...");
                {
                    CCriticalSectionLock lock(m_PciConfigLock);
                    m_PciConfigList.clear();
                    CPciConfigList::ScanPciSlots(m_PciConfigList, true);
                }
                if (!m_bTerminating)
                    ScanSystemAdapters();
            }
        } else {
            DBG_PRINT(2, "\nCSystemDeviceScan   : Scan of system adapters skipped!");
        }
        if ((flags & SCAN_DRIVES) != 0) {
            if (!m_bTerminating) {
                Hook(SCAN_DRIVES);
                if (!m_bTerminating)
                    ScanSystemDrives();
            }
        } else {
            DBG_PRINT(2, "\nCSystemDeviceScan   : Scan of system drives skipped!");
        }
        if ((flags & SCAN_VOLUMES) != 0) {
            if (!m_bTerminating) {
                Hook(SCAN_VOLUMES);
                if (!m_bTerminating)
                    ScanSystemVolumes();
            }
        } else {
            DBG_PRINT(2, "\nCSystemDeviceScan   : Scan of system volumes skipped!");
        }
        if (startWatcher) {
            DBG_PRINT(3, "\nCSystemDeviceScan   : Start update thread (partition check)");
            StartUpdateThread();
        } else {
            DBG_PRINT(3, "\nCSystemDeviceScan   : Start update thread (partition check) skipped");
        }
    }
    DBG_PRINT(2, "\nCSystemDeviceScan   : ... hardware scan completed (%s)!\n\n", "OK");
    DBG_PRINT(4, "\nCSystemDeviceScan   : <- ScanHardware()");
    return 0;
}

int CSystemDeviceScan::ScanDevices(int flags, bool startWatcher, unsigned int timeoutMs)
{
    return ScanHardware(flags, startWatcher, timeoutMs, nullptr);
}

int CSystemDeviceScan::RescanHardware(unsigned int timeoutMs, _ScanOptions* options)
{
    return ScanHardware(SCAN_ALL, m_UpdateThread.IsAlive(), timeoutMs, options);
}

bool CSystemDeviceScan::ScanSystemAdapters()
{
    DBG_PRINT(3, "\nCSystemDeviceScan   : Scan system devices ...");
    return CSystemAdapter::ScanSystemAdapters(m_Adapters, m_PciConfigList, true);
}

bool CSystemDeviceScan::ScanSystemDrives()
{
    DBG_PRINT(3, "\nCSystemDeviceScan   : Scan system drives ...");
    return CSystemDrive::ScanSystemDrives(m_Drives);
}

bool CSystemDeviceScan::ScanSystemVolumes()
{
    DBG_PRINT(3, "\nCSystemDeviceScan   : Scan system volumes ...");
    return CSystemVolume::ScanSystemVolumes(m_Volumes);
}

// ---------------------------------------------------------------------------
// Watcher

int CSystemDeviceScan::StartUpdateThread()
{
    if ((m_ScanFlags & SCAN_WATCHER) == 0) {
        DBG_PRINT(2, "\nCSystemDeviceScan   : WatchPartitions() skipped!");
        return 1;
    }
    if (m_UpdateThread.IsAlive())
        return 1;
    if (m_bTerminating) {
        // A terminated object keeps its last lists; no thread may change them.
        DBG_PRINT(2, "\nCSystemDeviceScan   : WatchPartitions() skipped!");
        return 1;
    }
    m_bExitRequest = false;
    m_ExitEvent.Reset();
    m_UpdateThread.Start(&CSystemDeviceScan::LaunchAsThread_WatchPartitions, this, 0, false, 0, 0, true,
                         "WatchPartitions");
    return 1;
}

void* CSystemDeviceScan::LaunchAsThread_WatchPartitions(void* self)
{
    static_cast<CSystemDeviceScan*>(self)->WatchPartitions();
    DBG_PRINT(2, "\nTHREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
              static_cast<unsigned>(pthread_self()), 0u);
    return nullptr;
}

void CSystemDeviceScan::ScanVolumes()
{
    if (!Lock(kQueryWaitMs)) {
        DBG_PRINT(1, "\nCSystemDeviceScan   : WARNING! ScanVolumes(): Access timeout!\n");
        return;
    }
    AccessGuard guard(m_AccessEvent);
    ScanSystemVolumes();
}

void CSystemDeviceScan::WatchPartitions()
{
    DBG_PRINT(1, "\nCSystemDeviceScan   : START THREAD WatchPartitions()");
    if (m_bExitRequest) {
        DBG_PRINT(1, "\nCSystemDeviceScan   : WatchPartitions() terminated!");
        return;
    }
    int rc;
    do {
        ScanVolumes();
        unsigned int period = m_WatcherPeriodMs;
        DBG_PRINT(3, "\nCSystemDeviceScan   : Wait %d seconds for next volume information update scan",
                  static_cast<int>(period / 1000));
        rc = m_ExitEvent.Wait(period);
    } while (rc == TR_WAIT_TIMEOUT && !m_bExitRequest);
    DBG_PRINT(1, "\nCSystemDeviceScan   : EXIT THREAD WatchPartitions()");
}

int CSystemDeviceScan::StopUpdateThread(unsigned int timeoutMs)
{
    if (!m_UpdateThread.IsAlive()) {
        DBG_PRINT(3, "\nCSystemDeviceScan   : Update thread not running!");
        // Collect a thread that has ended on its own.
        if (m_UpdateThread.GetId() != 0)
            m_UpdateThread.Kill();
        return 1;
    }
    DBG_PRINT(3, "\nCSystemDeviceScan   : Signale \"Exit\" to update thread");
    m_bExitRequest = true;
    m_ExitEvent.Set();
    DBG_PRINT(3, "\nCSystemDeviceScan   : Wait %d seconds for thread termination ...", static_cast<int>(timeoutMs / 1000));
    // A bounded wait for the routine's end: the thread's own wait would
    // join without limit.
    bool ended = m_UpdateThread.WaitForExit(timeoutMs);
    if (ended) {
        DBG_PRINT(1, "\nCSystemDeviceScan   : Update thread did exit!");
        m_UpdateThread.Kill();
    } else {
        // Joining now could block without limit; the thread has been told
        // to exit and is collected by the next start or the destructor.
        DBG_PRINT(1, "\nCSystemDeviceScan   : ERROR! Update thread did not terminate within %d seconds!",
                  static_cast<int>(timeoutMs / 1000));
    }
    return ended ? 1 : 0;
}

int CSystemDeviceScan::Terminate(unsigned int timeoutMs)
{
    DBG_PRINT(1, "\nCSystemDeviceScan   : ### TERMINATE ###");
    m_bTerminating = true;
    DBG_PRINT(1, "\nCSystemDeviceScan   : Stop update thread...");
    StopUpdateThread(timeoutMs);
    DBG_PRINT(1, "\nCSystemDeviceScan   : Start termination sequence...");
    if (!Lock(timeoutMs))
        DBG_PRINT(1, "\nCSystemDeviceScan   : WARNING! Pending calls not terminated within %d seconds!\n",
                  static_cast<int>(timeoutMs / 1000));
    m_AccessEvent.Set();
    DBG_PRINT(1, "\nCSystemDeviceScan   : ... termination sequence completed!");
    return 0;
}

// ---------------------------------------------------------------------------
// Queries

#define QUERY_LOCK(name, failValue)                                                                 \
    if (!Lock(kQueryWaitMs)) {                                                                      \
        DBG_PRINT(1, "\nCSystemDeviceScan   : WARNING! " name "(): Access timeout!\n");             \
        return failValue;                                                                           \
    }                                                                                               \
    AccessGuard guard(m_AccessEvent)

int CSystemDeviceScan::GetAdapterCount()
{
    QUERY_LOCK("GetAdapterCount", 0);
    return static_cast<int>(m_Adapters.size());
}

int CSystemDeviceScan::GetDriveCount()
{
    QUERY_LOCK("GetDriveCount", 0);
    return 0;
}

int CSystemDeviceScan::GetPartitionCount()
{
    QUERY_LOCK("GetPartitionCount", 0);
    return 0;
}

int CSystemDeviceScan::GetVolumeCount()
{
    QUERY_LOCK("GetVolumeNumber", 0);
    return static_cast<int>(m_Volumes.size());
}

int CSystemDeviceScan::GetAdapter(CSystemAdapter& adapter, int index)
{
    QUERY_LOCK("GetAdapter", 0);
    adapter = m_Adapters.at(static_cast<size_t>(index));
    return 1;
}

int CSystemDeviceScan::GetDrive(CSystemDrive&, int)
{
    QUERY_LOCK("GetDrive", 0);
    return 0;
}

int CSystemDeviceScan::GetPartition(CSystemPartition&, int)
{
    QUERY_LOCK("GetPartition", 0);
    return 0;
}

int CSystemDeviceScan::GetVolume(CSystemVolume& volume, int index)
{
    QUERY_LOCK("GetVolume", 0);
    if (index < 0 || static_cast<size_t>(index) >= m_Volumes.size())
        return 0;
    volume = m_Volumes[static_cast<size_t>(index)];
    return 1;
}

int CSystemDeviceScan::FindAdapter(CSystemAdapter& adapter, const char* deviceId)
{
    QUERY_LOCK("FindAdapter", 0);
    for (const CSystemAdapter& a : m_Adapters) {
        if (deviceId && a.deviceIdText == deviceId) {
            DBG_PRINT(3, "\nCSystemAdapterList  : Found adapter with device ID \"%s\": %s", deviceId, a.GetName());
            adapter = a;
            return 1;
        }
    }
    DBG_PRINT(3, "\nCSystemAdapterList  : No adapter found for device ID \"%s\"!", deviceId ? deviceId : "");
    return 0;
}

int CSystemDeviceScan::FindAdapter(CSystemAdapter& adapter, const CPciAddress& address)
{
    QUERY_LOCK("FindAdapter", 0);
    for (const CSystemAdapter& a : m_Adapters) {
        if (a.GetPciAddress() == address) {
            DBG_PRINT(3, "\nCSystemDeviceScan   : Found adapter at PCI address (Bus %d Device %d Function %d): %s",
                      address.GetBus(), address.GetDevice(), address.GetFunction(), a.GetName());
            adapter = a;
            return 1;
        }
    }
    DBG_PRINT(3, "\nCSystemDeviceScan   : No adapter found at PCI address (Bus %d Device %d Function %d)!",
              address.GetBus(), address.GetDevice(), address.GetFunction());
    return 0;
}

int CSystemDeviceScan::GetHostAdapter(CSystemAdapter& adapter, const CSystemDrive& drive)
{
    QUERY_LOCK("GetHostAdapter", 0);
    if (!drive.hasPciAddress)
        return 0;
    for (const CSystemAdapter& a : m_Adapters) {
        if (a.GetPciAddress() == drive.GetPciAddress()) {
            DBG_PRINT(3, "\nCSystemDeviceRelations   : Found host adapter \"%s\"", a.GetName());
            adapter = a;
            return 1;
        }
    }
    return 0;
}

bool CSystemDeviceScan::GetHostDrives(CSystemDriveList& drives, CSystemAdapter& adapter)
{
    QUERY_LOCK("GetHostDrive", false);
    DBG_PRINT(3, "\nCSystemDeviceScan   : Get host drives for adapter \"%s\":", adapter.GetName());
    if (adapter.deviceIdText.empty()) {
        // An adapter that no scan produced has no usable PCI address.
        DBG_PRINT(3, "\nCSystemDeviceRelations   : Cannot get  Adapter pci address \"%s\".", adapter.GetName());
        return !drives.empty();
    }
    int found = 0;
    for (const CSystemDrive& d : m_Drives) {
        if (d.hasPciAddress && d.GetPciAddress() == adapter.GetPciAddress()) {
            DBG_PRINT(3, "\nCSystemDeviceRelations   : Adapter \"%s\": Host drive [%d]: \"%s\"", adapter.GetName(), found,
                      d.GetName());
            drives.push_back(d);
            ++found;
        }
    }
    DBG_PRINT(3, "\nCSystemDeviceScan   : Found %d host drives for adapter \"%s\"", found, adapter.GetName());
    return !drives.empty();
}

int CSystemDeviceScan::GetDiskPartitions(CSystemPartitionList&, CSystemDrive&)
{
    DBG_PRINT(5, "\nCSystemDeviceScan   : -> GetDiskPartitions()");
    DBG_PRINT(5, "\nCSystemDeviceScan   : <- GetDiskPartitions()");
    return 0;
}
