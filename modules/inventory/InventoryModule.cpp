// Inventory module: scans the server's hardware (PCI adapters with their
// slots, drives, volumes, and the machine identity from the firmware's
// SMBIOS table) on a thread of its own, publishes the result in
// the registry below HKEY_LOCAL_MACHINE\SOFTWARE\Tarvis\Inventory, and
// records every hardware change it finds (a card or disk added, removed or
// moved, a BIOS update, a memory module added or removed) under
// ...\Inventory\Changes.  The network interfaces are published below
// ...\Inventory\NetworkInterfaces and their changes recorded as they come
// (see NetInventory.h).  See README, "Bundled modules", for
// the keys and the configuration values.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "framework/tarvd_module.h"
#include "hwinfo/CSystemDeviceScan.h"
#include "hwinfo/HwPaths.h"
#include "modules/common/ModuleLifecycle.h"
#include "modules/common/ModuleSettings.h"
#include "modules/inventory/InventoryModel.h"
#include "modules/inventory/NetInventory.h"
#include "registry/CRegistry.h"
#include "trace/CDebug.h"
#include "trace/FailureReport.h"
#include "trace/CEvent.h"
#include "trace/CThread.h"

namespace {

using namespace inventory;

/// How long stop() lets a running scan finish its current step.
constexpr unsigned kTerminateWaitMs = 300;

struct Settings {
    bool hasRoot = false;
    std::string root = "/";
    unsigned rescanMs = 300 * 1000;        // RescanSeconds
    unsigned volumeCheckMs = 60 * 1000;    // VolumeCheckSeconds
    unsigned startupDelayMs = 30 * 1000;   // StartupDelaySeconds
    unsigned maxChanges = 100;             // MaxChanges
    unsigned scanTimeoutMs = 60 * 1000;    // ScanTimeoutSeconds
    bool watchNetwork = true;              // NetworkInterfaces
};

struct InventoryState {
    Settings settings;
    uint32_t runMode = 0;
    bool forceRescan = false;
    std::string previousRoot;
    CEvent stop{false, true, nullptr};  // manual reset: stays set until the next start
    CThread thread;
    bool running = false;
    std::atomic<bool> noNewWork{false};
    std::unique_ptr<CSystemDeviceScan> scan;
    std::atomic<unsigned> fullScans{0};
    // One writer of the change records at a time: the scans and the
    // network interface manager's thread number them on from one counter.
    std::mutex recordLock;
    std::unique_ptr<CNetInventory> net;
};

std::unique_ptr<InventoryState> g_State;

uint64_t NowMs()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void TraceChanges(const std::vector<Change>& changes, uint32_t lastSequence)
{
    uint32_t sequence = lastSequence - static_cast<uint32_t>(changes.size());
    for (const Change& c : changes) {
        ++sequence;
        DBG_PRINT(2, "\nInventoryModule     : hardware change %u: %s %s (%s)", sequence, ChangeKindName(c.kind),
                  c.object.c_str(), c.detail.c_str());
    }
}

/// Compares with the stored inventory, records the changes and writes the
/// new inventory.  `full`: adapters and drives too, else the volumes only.
/// One handle: the tree is saved once, when it goes.  The summary value
/// ScanCount is written last, so a reader that sees it finds a complete
/// inventory.
void Publish(InventoryState& st, const Inventory& now, bool full)
{
    std::lock_guard<std::mutex> guard(st.recordLock);
    CRegistry reg;
    uint32_t scanCount = 0;
    bool haveStored = ReadSummaryNumber(reg, "ScanCount", scanCount);
    std::vector<Change> changes;
    if (haveStored) {
        Category stored;
        if (full) {
            ReadCategory(reg, kAdaptersKey, stored);
            auto a = CompareAdapters(stored, now.adapters);
            changes.insert(changes.end(), a.begin(), a.end());
            ReadCategory(reg, kDrivesKey, stored);
            auto d = CompareDrives(stored, now.drives);
            changes.insert(changes.end(), d.begin(), d.end());
        }
        ReadCategory(reg, kVolumesKey, stored);
        auto v = CompareVolumes(stored, now.volumes);
        changes.insert(changes.end(), v.begin(), v.end());
        // An identity stored by a version without one is taken as it is.
        if (full && !now.identity.empty() && ReadCategory(reg, kIdentityKey, stored) && !stored.empty()) {
            auto i = CompareIdentity(stored, now.identity);
            changes.insert(changes.end(), i.begin(), i.end());
        }
    } else if (full) {
        DBG_PRINT(2, "\nInventoryModule     : no stored inventory: the first one is taken as it is");
    }
    if (full) {
        WriteCategory(reg, kAdaptersKey, now.adapters);
        WriteCategory(reg, kDrivesKey, now.drives);
        // A firmware table that gives no identity this time leaves the
        // stored one: an unreadable table is no hardware change.
        if (!now.identity.empty())
            WriteCategory(reg, kIdentityKey, now.identity);
    }
    WriteCategory(reg, kVolumesKey, now.volumes);
    std::string time = tarvdmod::IsoTimeUtc();
    uint32_t last = RecordChanges(reg, changes, time, st.settings.maxChanges);
    TraceChanges(changes, last);

    Properties summary;
    summary["VolumeCount"] = Value::Number(static_cast<uint32_t>(now.volumes.size()));
    if (full) {
        summary["AdapterCount"] = Value::Number(static_cast<uint32_t>(now.adapters.size()));
        summary["DriveCount"] = Value::Number(static_cast<uint32_t>(now.drives.size()));
        summary["Root"] = Value::Text(SanitizeText(st.settings.root));
        summary["LastScan"] = Value::Text(time);
        summary["ScanCount"] = Value::Number(haveStored ? scanCount + 1 : 1);
    }
    WriteSummary(reg, summary);
    DBG_PRINT(3, "\nInventoryModule     : %s published: %zu adapter(s), %zu drive(s), %zu volume(s), %zu change(s)",
              full ? "inventory" : "volume list", now.adapters.size(), now.drives.size(), now.volumes.size(),
              changes.size());
}

bool Interrupted(const InventoryState& st)
{
    return st.noNewWork.load() || st.scan->IsTerminating();
}

void FullScan(InventoryState& st)
{
    DBG_PRINT(3, "\nInventoryModule     : full hardware scan");
    if (st.scan->ScanHardware(CSystemDeviceScan::SCAN_ALL, true, st.settings.scanTimeoutMs) != 0) {
        ReportFailure(SysLogTraces::SL_ERR, "\nInventoryModule     : ## ERROR! hardware scan not possible within %u ms",
                  st.settings.scanTimeoutMs);
        return;
    }
    // A scan cut short by stop() skipped steps: its lists are no inventory.
    if (Interrupted(st))
        return;
    Inventory now = CollectInventory(*st.scan);
    now.identity = CollectIdentity();
    if (Interrupted(st))
        return;
    Publish(st, now, true);
    ++st.fullScans;
}

/// The watcher thread of the scan keeps the volume list fresh; publish it
/// when it differs from the stored one.
void VolumeCheck(InventoryState& st)
{
    Inventory now;
    now.volumes = CollectVolumes(*st.scan);
    if (Interrupted(st))
        return;
    {
        CRegistry reg;
        Category stored;
        ReadCategory(reg, kVolumesKey, stored);
        if (stored == now.volumes)
            return;
    }
    Publish(st, now, false);
}

bool HaveStoredInventory()
{
    CRegistry reg;
    uint32_t count = 0;
    return ReadSummaryNumber(reg, "ScanCount", count);
}

/// The network interfaces are always the running kernel's; their details
/// (speed, driver, PCI address) come from the machine root's sysfs, and
/// the drivers are asked directly only on the machine itself.
void StartNetwork(InventoryState& st)
{
    if (!st.settings.watchNetwork)
        return;
    libnetif::manager_options options;
    const bool live = st.settings.root == "/";
    options.sysfs_root = live ? libnetif::kDefaultSysfsRoot : st.settings.root + "/sys";
    options.use_ethtool = live;
    st.net = std::make_unique<CNetInventory>(st.recordLock, st.settings.maxChanges, options);
    if (!st.net->Start())
        st.net.reset();
}

void InventoryLoop(InventoryState& st)
{
    const Settings& s = st.settings;
    uint64_t now = NowMs();
    uint64_t nextFull = now;
    if (!st.forceRescan && HaveStoredInventory()) {
        // Keep what is stored for a while after start: the machine is busy
        // starting, and the hardware seldom changes while it is off.
        nextFull = now + s.startupDelayMs;
        DBG_PRINT(2, "\nInventoryModule     : stored inventory kept, first scan in %u s", s.startupDelayMs / 1000);
    }
    uint64_t nextVolumes = nextFull + s.volumeCheckMs;
    StartNetwork(st);
    if (st.net)
        st.net->Publish();
    for (;;) {
        now = NowMs();
        if (!st.noNewWork.load()) {
            if (now >= nextFull) {
                FullScan(st);
                now = NowMs();
                nextFull = now + s.rescanMs;
                nextVolumes = now + s.volumeCheckMs;
            } else if (now >= nextVolumes) {
                VolumeCheck(st);
                nextVolumes = NowMs() + s.volumeCheckMs;
            }
        }
        now = NowMs();
        uint64_t due = std::min(nextFull, nextVolumes);
        unsigned waitMs = due > now ? static_cast<unsigned>(std::min<uint64_t>(due - now, 3600000)) : 0;
        if (st.noNewWork.load())
            waitMs = 3600000;
        if (st.stop.Wait(waitMs) != TR_WAIT_TIMEOUT)
            break;
    }
}

void* InventoryThread(void* arg)
{
    // Nothing may leave the thread: an exception there would end the daemon.
    try {
        InventoryLoop(*static_cast<InventoryState*>(arg));
    } catch (const std::exception& e) {
        ReportFailure(SysLogTraces::SL_ERR, "\nInventoryModule     : ## ERROR! inventory thread ended by an exception: %s", e.what());
    } catch (...) {
        ReportFailure(SysLogTraces::SL_ERR, "\nInventoryModule     : ## ERROR! inventory thread ended by an exception");
    }
    return nullptr;
}

unsigned Seconds(const TarvdModuleConfig* config, const char* key, unsigned fallbackMs, unsigned low, unsigned high)
{
    bool bad = false;
    unsigned long s = tarvdmod::ConfigNumber(config, key, fallbackMs / 1000, low, high, &bad);
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nInventoryModule     : ## WARNING! %s=%s is not a number from %u to %u, using %u",
                  key, tarvdmod::ConfigText(config, key), low, high, fallbackMs / 1000);
    return static_cast<unsigned>(s * 1000);
}

int Load(const TarvdModuleConfig* config)
{
    if (g_State)
        return 1;
    auto st = std::make_unique<InventoryState>();
    Settings& s = st->settings;
    if (const char* root = tarvdmod::ConfigText(config, "Root"); root && *root) {
        s.hasRoot = true;
        s.root = root;
    }
    s.rescanMs = Seconds(config, "RescanSeconds", s.rescanMs, 1, 7 * 24 * 3600);
    s.volumeCheckMs = Seconds(config, "VolumeCheckSeconds", s.volumeCheckMs, 1, 24 * 3600);
    s.startupDelayMs = Seconds(config, "StartupDelaySeconds", s.startupDelayMs, 0, 24 * 3600);
    s.scanTimeoutMs = Seconds(config, "ScanTimeoutSeconds", s.scanTimeoutMs, 1, 3600);
    bool bad = false;
    s.maxChanges = static_cast<unsigned>(tarvdmod::ConfigNumber(config, "MaxChanges", s.maxChanges, 1, 100000, &bad));
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nInventoryModule     : ## WARNING! MaxChanges is not a number from 1 to 100000, using %u",
                  s.maxChanges);
    bad = false;
    s.watchNetwork = tarvdmod::ConfigNumber(config, "NetworkInterfaces", 1, 0, 1, &bad) != 0;
    if (bad)
        ReportFailure(SysLogTraces::SL_WARNING, "\nInventoryModule     : ## WARNING! NetworkInterfaces is not 0 or 1, using 1");
    st->runMode = config->runMode;
    st->forceRescan = (config->flags & TARVD_FLAG_FORCE_RESCAN) != 0;
    if (s.hasRoot) {
        st->previousRoot = hwinfo::GetRootDirectory();
        hwinfo::SetRootDirectory(s.root.c_str());
    }
    DBG_PRINT(2,
              "\nInventoryModule     : loaded from %s (run mode %u, force rescan %d, root %s, rescan %u s, "
              "volume check %u s, keep %u changes)",
              config->configFile ? config->configFile : "", st->runMode, st->forceRescan ? 1 : 0, s.root.c_str(),
              s.rescanMs / 1000, s.volumeCheckMs / 1000, s.maxChanges);
    g_State = std::move(st);
    return 1;
}

int Start()
{
    if (!g_State || g_State->running)
        return g_State != nullptr;
    InventoryState& st = *g_State;
    st.stop.Reset();
    st.noNewWork = false;
    // A fresh scan object per start: a terminated one skips every scan.
    st.scan = std::make_unique<CSystemDeviceScan>();
    st.scan->SetWatcherPeriod(st.settings.volumeCheckMs);
    st.running = tarvdmod::StartWorker(st.thread, InventoryThread, &st, "InventoryModule", "inventory",
                                       "inventory thread");
    if (!st.running)
        st.scan.reset();
    return st.running ? 1 : 0;
}

void Stop()
{
    if (!g_State || !g_State->running)
        return;
    InventoryState& st = *g_State;
    st.noNewWork = true;
    st.stop.Set();
    // Ends the watcher and cuts a running scan short.
    st.scan->Terminate(kTerminateWaitMs);
    st.thread.WaitForTermination(TR_INFINITE);
    // The thread made it; no listener call runs once this returns.
    st.net.reset();
    st.scan.reset();
    st.running = false;
    DBG_PRINT(2, "\nInventoryModule     : stopped after %u full scan(s)", st.fullScans.load());
}

void Notify(uint32_t event, const void* data)
{
    if (!g_State)
        return;
    if (event == TARVD_EVENT_DAEMON_STOPPING)
        g_State->noNewWork = true;
    tarvdmod::TraceNotification("InventoryModule", event, data, ", no further scans");
}

void Unload()
{
    if (!g_State)
        return;
    Stop();
    if (g_State->settings.hasRoot)
        hwinfo::SetRootDirectory(g_State->previousRoot.c_str());
    g_State.reset();
    DBG_PRINT(2, "\nInventoryModule     : unloaded");
}

const TarvdModuleV1 kModule = {TARVD_MODULE_ABI_VERSION, "inventory", Load, Start, Stop, Notify, Unload};

} // namespace

extern "C" TARVD_MODULE_EXPORT const TarvdModuleV1* tarvd_module_v1()
{
    return &kModule;
}
