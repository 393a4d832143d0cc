// kopd: the agent's root daemon.  Takes the single-instance lock, detaches,
// starts tracing, loads the module framework and then only waits for
// signals; all monitoring is done by the framework's extension modules.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "BuildInfo.h"
#include "common/UniqueHandle.h"
#include "daemon/CFileLock.h"
#include "daemon/CServiceNotify.h"
#include "daemon/CSwitchApi.h"
#include "daemon/kopd/Kopd.h"
#include "daemon/kopd/SmbusDriverInfo.h"
#include "trace/CDebug.h"

// Process-wide objects, constructed in this order before main() runs.
CDebug Debug;
CEvent g_ExitEvent(false, true, nullptr);
static sigset_t g_BlockedSignals;
static sigset_t g_WaitSignals;
static int g_LastSignal = 0;

namespace {

using namespace kopd;

void FillDaemonSignals(sigset_t* set)
{
    sigemptyset(set);
    sigaddset(set, SIGINT);
    sigaddset(set, SIGTERM);
    sigaddset(set, SIGHUP);
    sigaddset(set, SIGALRM);
}

bool IsNoDemonOption(const char* arg)
{
    return strcmp(arg, "-n") == 0 || strcmp(arg, "-nodemon") == 0;
}

constexpr const char* kUsage =
    "Usage: %s [-n|-nodemon] [-rescan] [-agentless|-tinst|-tupd|-tupd-agentless]\n"
    "The server-management agent's daemon: loads the module framework and its\n"
    "extension modules and runs until SIGTERM or SIGINT (SIGHUP switches tracing\n"
    "off and on again).  Runs as root; one instance at a time.\n"
    "\n"
    "  -n, -nodemon     stay in the foreground\n"
    "  -rescan          ask the modules for a full rescan\n"
    "  -agentless       run mode 5 (agentless)\n"
    "  -tinst           run mode 7\n"
    "  -tupd            run mode 8\n"
    "  -tupd-agentless  run mode 10\n"
    "  --help           this text\n"
    "  --version        the daemon's version and build\n"
    "\n"
    "Other arguments are ignored.  Exit status: 0 after a normal stop (and from\n"
    "the parent right after the daemon detached), 1 when it cannot run.\n";

/// --help and --version, answered for any user before anything else (no
/// lock, no trace, no fork).  @return the exit status, or -1 to go on.
int AnswerInformationRequest(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0) {
            printf(kUsage, kProgramName);
            return 0;
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("%s (%s) %s, built %s\n", kProgramName, g_BuildInfo.Product, g_BuildInfo.Version,
                   g_BuildInfo.BuildTime);
            return 0;
        }
    }
    return -1;
}

void ParseCommandLine(int argc, char** argv, _ExtensionModuleLoaderConfig& config)
{
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "-rescan") == 0) {
            config.Flags |= SW_FLAG_FORCE_RESCAN;
            DBG_PRINT(2, "\n%s-MAIN::ParseCommandLine   : RESCAN due to -rescan", kPrefix);
        } else if (strcmp(arg, "-agentless") == 0) {
            config.RunMode = SW_RUNMODE_AGENTLESS;
            DBG_PRINT(2, "\n%s-MAIN::ParseCommandLine   : Agentsless mode due to -agentless", kPrefix);
        } else if (strcmp(arg, "-tupd") == 0) {
            config.RunMode = SW_RUNMODE_TUPD;
            DBG_PRINT(2, "\n%s-MAIN::ParseCommandLine   : TUPD mode due to -tupd", kPrefix);
        } else if (strcmp(arg, "-tupd-agentless") == 0) {
            config.RunMode = SW_RUNMODE_TUPD_AGENTLESS;
            DBG_PRINT(2, "\n%s-MAIN::ParseCommandLine   : TAGL_TUPD mode due to -tupd-agentless", kPrefix);
        } else if (strcmp(arg, "-tinst") == 0) {
            config.RunMode = SW_RUNMODE_TINST;
            DBG_PRINT(2, "\n%s-MAIN::ParseCommandLine   : TINST mode due to -tinst", kPrefix);
        }
    }
}

void ParseVersion(unsigned* major, unsigned* minor, unsigned* build)
{
    // Fields that do not match keep 0.
    *major = *minor = *build = 0;
    sscanf(g_BuildInfo.Version, "%u.%u-%u", major, minor, build);
}

/// Copies an environment value into a fixed field: only when set and not
/// empty, at most the field's size (a value that fills it is not terminated).
template <size_t N>
void CopyEnv(char (&field)[N], const char* name)
{
    const char* value = getenv(name);
    if (value && *value)
        memcpy(field, value, strnlen(value, N));
}

/// A driver text field as a terminated string (the driver need not terminate it).
template <size_t N>
struct FieldText {
    explicit FieldText(const char (&field)[N])
    {
        memcpy(text, field, N);
        text[N] = '\0';
    }
    char text[N + 1];
};

#define SMBUS_TRACE(...)                        \
    do {                                        \
        if (Debug.IsEnabled())                  \
            Debug.Print(2, __VA_ARGS__);        \
    } while (0)

void TraceDriverInfo(const SmbusRequestHeader& header, const SmbusDriverInfoBuffer& b)
{
    SMBUS_TRACE("%s-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0x%08X)\n", kPrefix,
                static_cast<unsigned>(IOCTL_SMBUS_DRIVER_INFO));
    SMBUS_TRACE("%-28s: 0x%08X\n", "Version", header.Version);
    SMBUS_TRACE("%-28s: 0x%08X\n", "CmdNumber", header.CmdNumber);
    SMBUS_TRACE("%-28s: 0x%08X\n", "SizeOfInOutBuffer", header.SizeOfInOutBuffer);
    SMBUS_TRACE("%-28s: 0x%p\n", "pInOutBuffer", static_cast<void*>(header.pInOutBuffer));
    SMBUS_TRACE("%-28s: 0x%08X\n", "Success", header.Success);
    SMBUS_TRACE("%-28s: 0x%08X\n", "OSKernelVersionCode", b.OSKernelVersionCode);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_VersionCode", b.smbus_VersionCode);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_ArchMode", b.smbus_ArchMode);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_ArchXEN", b.smbus_ArchXEN);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_ArchFacil", b.smbus_ArchFacil);
    SMBUS_TRACE("%-28s: 0x%08X\n", "RequestorVersion", b.RequestorVersion);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsSmbiHwFound", unsigned{b.smbus_IsSmbiHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsBapiHwFound", unsigned{b.smbus_IsBapiHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsGabiHwFound", unsigned{b.smbus_IsGabiHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsSmbusHwFound", unsigned{b.smbus_IsSmbusHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsBusIoHwFound", unsigned{b.smbus_IsBusIoHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsCpuErrHwFound", unsigned{b.smbus_IsCpuErrHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsCpuApicHwFound", unsigned{b.smbus_IsCpuApicHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsCpuInfoHwFound", unsigned{b.smbus_IsCpuInfoHwFound});
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_MajorDeviceNumber", b.smbus_MajorDeviceNumber);
    SMBUS_TRACE("%-28s: 0x%08X\n", "smbus_IsKmpModule", b.smbus_IsKmpModule);
    SMBUS_TRACE("%-28s: %s\n", "RequestorName", FieldText(b.RequestorName).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_Name", FieldText(b.smbus_Name).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_SrcVersion", FieldText(b.smbus_SrcVersion).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_SrcDate", FieldText(b.smbus_SrcDate).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_ObjDate", FieldText(b.smbus_ObjDate).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_OsArchitecture", FieldText(b.smbus_OsArchitecture).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_OsVersion", FieldText(b.smbus_OsVersion).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_CompilerVersion", FieldText(b.smbus_CompilerVersion).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_KernelVersion", FieldText(b.smbus_KernelVersion).text);
    SMBUS_TRACE("%-28s: %s\n", "TR_SYSTEM", FieldText(b.TR_SYSTEM).text);
    SMBUS_TRACE("%-28s: %s\n", "TR_OS", FieldText(b.TR_OS).text);
    SMBUS_TRACE("%-28s: %s\n", "TR_NICKNAME", FieldText(b.TR_NICKNAME).text);
    SMBUS_TRACE("%-28s: %s\n", "smbus_ErrorReturnString", FieldText(b.smbus_ErrorReturnString).text);
}

/// Asks the smbus driver for its version and capabilities.  Diagnostic
/// only: the answer is traced and a missing driver never stops the daemon.
void DiscoverSmbusDriverInfo()
{
    bool ok = false;
    UniqueFd device(open(SMBUS_DEVICE_PATH, O_RDWR | O_CLOEXEC));
    if (!device) {
        int err = errno;
        DBG_PRINT(2, "%s-MAIN::DiscoverSmbusDriverInfo: cannot open %s (errno=%d: %s)\n", kPrefix, SMBUS_DEVICE_PATH,
                  err, strerror(err));
    } else {
        SmbusDriverInfoBuffer buffer;
        memset(&buffer, 0, sizeof buffer);
        SmbusRequestHeader header;
        memset(&header, 0, sizeof header);
        header.Version = SMBUS_REQUEST_VERSION;
        header.CmdNumber = SMBUS_CMD_DRIVER_INFO;
        header.SizeOfInOutBuffer = sizeof buffer;
        header.pInOutBuffer = &buffer;

        unsigned major, minor, build;
        ParseVersion(&major, &minor, &build);
        buffer.RequestorVersion = major << 16 | minor << 8 | build;
        memcpy(buffer.RequestorName, kPrefix, strnlen(kPrefix, sizeof buffer.RequestorName));
        CopyEnv(buffer.TR_SYSTEM, "TR_SYSTEM");
        CopyEnv(buffer.TR_OS, "TR_OS");
        CopyEnv(buffer.TR_NICKNAME, "TR_NICKNAME");

        int rc = ioctl(device.Get(), IOCTL_SMBUS_DRIVER_INFO, &header);
        int err = errno;
        device.Reset();
        if (rc < 0) {
            DBG_PRINT(2, "%s-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO (0x%08X) to %s failed (errno=%d: %s)\n",
                      kPrefix, static_cast<unsigned>(IOCTL_SMBUS_DRIVER_INFO), SMBUS_DEVICE_PATH, err, strerror(err));
        } else {
            ok = true;
            uint32_t ours = buffer.RequestorVersion;
            uint32_t driver = buffer.smbus_VersionCode;
            if (ours < driver)
                Debug.PrintAlways(0, "%s-MAIN: WARNING: kopd version (0x%08X) is less than smbus driver version (0x%08X)\n",
                                  kPrefix, ours, driver);
            TraceDriverInfo(header, buffer);
        }
    }
    if (!ok)
        Debug.PrintAlways(0,
                          "%s-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it "
                          "might be OK on some OS systems!)\n",
                          kPrefix);
}

// The pid file is made anew: whatever stands at its path (the file of an
// instance that died, or a symbolic link someone planted there) is removed
// first, and O_EXCL with O_NOFOLLOW makes sure the file written is the one
// just created, never the target of a link.  A link planted again between
// the removal and the creation costs another try.  Failing to write it is
// not fatal, and deliberately not reported.
void WritePidFile()
{
    for (int attempt = 0; attempt < kPidFileAttempts; ++attempt) {
        if (unlink(kPidFile) != 0 && errno != ENOENT)
            return;
        UniqueFd fd(open(kPidFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPidFileMode));
        if (!fd) {
            if (errno == EEXIST)
                continue;
            return;
        }
        char text[32];
        int len = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
        ssize_t written = write(fd.Get(), text, static_cast<size_t>(len));
        (void)written;
        return;
    }
}

void IgnoreSignal(int signal)
{
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signal, &action, nullptr);
}

void TraceVersion()
{
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char start[42];
    if (!asctime_r(&local, start))
        snprintf(start, sizeof start, "%s", "mmm dd hh:mm:ss yyyy\n");

    int major = 0, minor = 0, build = 0;  // fields that do not match keep 0
    sscanf(g_BuildInfo.Version, "%d.%d-%d", &major, &minor, &build);
    // From the fifth character on: the weekday is left out.
    Debug.PrintAlways(0, "%s Version=\"%d.%02d-%02d\" Milestone=\"%s\" Built=\"%s\" Start=\"%.15s\"",
                      g_BuildInfo.ShortName, major, minor, build, g_BuildInfo.Milestone, g_BuildInfo.BuildTime,
                      start + 4);
    Debug.PrintAlways(0, "%s-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)", kPrefix);
}

/// Tells a waiting service manager about a state change; nothing when the
/// daemon was not started with a notification socket.
void NotifyServiceManager(CServiceNotify& notify, const char* state)
{
    if (!notify.Enabled())
        return;
    if (notify.Notify(state)) {
        DBG_PRINT(3, "%s-MAIN: service manager notified: %s", kPrefix, state);
    } else {
        int err = notify.LastError();
        DBG_PRINT(1, "%s-MAIN: ERROR! cannot notify the service manager at %s of %s (errno=%d: %s)", kPrefix,
                  notify.Address().c_str(), state, err, strerror(err));
    }
}

/// A trace directory that is missing or not writable leaves the daemon
/// without any trace file, also when tracing was switched on: said on
/// standard error (seen in the foreground and by the service manager) and
/// in the system log.
void WarnAboutTraceDirectory(const char* self)
{
    const char* dir = Debug.GetTraceDirectory();
    if (dir == nullptr || *dir == '\0' || access(dir, W_OK | X_OK) == 0)
        return;
    const int err = errno;
    fprintf(stderr, "%s: %s-MAIN: Warning! trace directory %s is missing or not writable (%s): no trace is written\n",
            self, kPrefix, dir, strerror(err));
    syslog(LOG_WARNING, "%s-MAIN: Warning! trace directory %s is missing or not writable (%s): no trace is written",
           kPrefix, dir, strerror(err));
}

/// Refuses a user other than root and a second instance, then detaches
/// unless told not to.  False when the daemon must end with status 1.
bool TakeLockAndDetach(int argc, char** argv, std::unique_ptr<CFileLock>& lock, CServiceNotify& serviceNotify)
{
    const char* self = argc > 0 ? argv[0] : kProgramName;
    if (getuid() != 0) {
        fprintf(stderr, "%s: %s-MAIN: Error! Permission denied\n", self, kPrefix);
        return false;
    }

    // The lock is taken before the fork on purpose: a second instance is
    // refused in the foreground, with its message on the terminal.  The
    // child inherits the open lock file and with it the flock.
    lock = std::make_unique<CFileLock>();
    if (!lock->Lock(kLockName, kProgramName, 0)) {
        fprintf(stderr, "%s: %s-MAIN: Error! Another process instance is already running!\n", self, kPrefix);
        return false;
    }

    bool noDemon = false;
    for (int i = 1; i < argc; ++i)
        if (IsNoDemonOption(argv[i]))
            noDemon = true;
    // A service manager that starts the daemon in the foreground may ask to
    // be told when start-up is done and when the daemon begins to stop.
    if (noDemon) {
        fprintf(stderr, "%s: %s-MAIN: started in \"No Demon\" Mode\n", self, kPrefix);
        serviceNotify.TakeFromEnvironment();
        return true;
    }
    pid_t pid = fork();
    if (pid < 0) {
        int err = errno;
        fprintf(stderr, "%s: %s-MAIN: Error! Cannot fork --> no demon !!!: %s\n", self, kPrefix, strerror(err));
        return false;
    }
    if (pid > 0)
        exit(0);  // the lock object stays alive: the child holds the lock now
    return true;
}

/// Session, working directory, file mode mask and signal dispositions of
/// the daemon.
void PrepareProcess()
{
    setsid();  // fails harmlessly in "No Demon" mode when we lead a group
    if (chdir("/") != 0) {
        // Nothing depends on the working directory afterwards.
    }
    umask(22);  // decimal 22 == octal 026: group write and all of others masked

    IgnoreSignal(SIGPIPE);
    IgnoreSignal(SIGIO);
    // Blocked while this is the only thread, so every module thread inherits
    // the block and these signals arrive only through sigwait() below.
    FillDaemonSignals(&g_BlockedSignals);
    sigprocmask(SIG_BLOCK, &g_BlockedSignals, nullptr);
}

void LoadAndStartModules(CSwitchApi& switchApi, _ExtensionModuleLoaderConfig& config)
{
    DBG_PRINT(2, "%s-MAIN: Load extension modules ...", kPrefix);
    if (static_cast<uint8_t>(switchApi.LoadModules(config)) != 0) {
        DBG_PRINT(2, "%s-MAIN: ... extension modules loaded", kPrefix);
        DBG_PRINT(2, "%s-MAIN: Start all modules  ...", kPrefix);
        if (SwitchInterface* sw = switchApi.Interface())
            sw->StartAllModules();
        DBG_PRINT(2, "%s-MAIN: ... all modules started", kPrefix);
    } else {
        // Go on without modules, so that the daemon can still be stopped in order.
        DBG_PRINT(1, "%s-MAIN: ERROR! Load extension modules FAILED!", kPrefix);
        syslog(LOG_ERR, "%s-MAIN: ERROR! Load extension modules FAILED!", kPrefix);
    }
}

/// Takes the daemon's signals until one of them asks it to exit.
void WaitForExit(CSwitchApi& switchApi)
{
    FillDaemonSignals(&g_WaitSignals);
    Debug.PrintAlways(0, "\n%s-MAIN:  Waiting for signals...", kPrefix);

    for (;;) {
        int rc = sigwait(&g_WaitSignals, &g_LastSignal);
        if (rc == 0) {
            Debug.PrintAlways(0, "\n%s-MAIN:  ... got signal %d", kPrefix, g_LastSignal);
            CatchSignals(g_LastSignal, switchApi);
        } else {
            Debug.PrintAlways(0, "%s-MAIN: ## ERROR sigwait() failed (ret=%d) ##\n", kPrefix, rc);
            Debug.PrintAlways(0,
                              "%s-MAIN: ## ERROR This is Operating System BUG, since sigwait() should never return "
                              "an error !!! ##\n",
                              kPrefix);
            Debug.PrintAlways(0,
                              "%s-MAIN: ## ERROR We do so as if SIGTERM has been sent to this process) --> Do "
                              "Shutdown !!! ##\n",
                              kPrefix);
            g_LastSignal = SIGTERM;
            CatchSignals(SIGTERM, switchApi);
        }
        if (g_ExitEvent.IsSet())
            break;
    }
}

/// Stops and unloads the modules and releases the framework.
void OnExitService(CSwitchApi& switchApi, CServiceNotify& serviceNotify)
{
    Debug.PrintAlways(0, "%s-MAIN: ## Someone signaled exit state ##\n", kPrefix);
    NotifyServiceManager(serviceNotify, "STOPPING=1");
    DBG_PRINT(2, "%s-MAIN::OnExitService      : Stopping all modules...\n", kPrefix);
    if (SwitchInterface* sw = switchApi.Interface())
        sw->StopAllModules();
    DBG_PRINT(2, "%s-MAIN::OnExitService      : ... all modules stopped\n", kPrefix);
    DBG_PRINT(2, "%s-MAIN::OnExitService      : Start unload of all registered extension modules ...\n", kPrefix);
    switchApi.UnloadModules(0);
    DBG_PRINT(2, "%s-MAIN::OnExitService      : ... unload of all registered extension modules completed!\n",
              kPrefix);
    switchApi.Release();
    Debug.PrintAlways(0, "%s-MAIN: ## EXIT PROCESS %s ##\n", kPrefix, kPrefix);
}

} // namespace

int main(int argc, char** argv)
{
    if (int status = AnswerInformationRequest(argc, argv); status >= 0)
        return status;
    std::unique_ptr<CFileLock> lock;
    CServiceNotify serviceNotify;
    if (!TakeLockAndDetach(argc, argv, lock, serviceNotify))
        return 1;

    Debug.Init(kProgramName);
    Debug.SetMainParams(argc, argv);

    _ExtensionModuleLoaderConfig config{0, 0};
    ParseCommandLine(argc, argv, config);
    DBG_PRINT(2, "%s-MAIN: RUN MODE: %d", kPrefix, static_cast<int>(config.RunMode));

    PrepareProcess();
    TraceVersion();

    tzset();
    openlog(kProgramName, LOG_PID | LOG_NOWAIT, LOG_DAEMON);
    DBG_PRINT(3, "%s-MAIN: Syslog %s openend,", kPrefix, kProgramName);
    WarnAboutTraceDirectory(argc > 0 ? argv[0] : kProgramName);

    if (config.RunMode == SW_RUNMODE_FULL)
        DiscoverSmbusDriverInfo();

    CSwitchApi switchApi;
    if (!switchApi.LoadSwitch()) {
        Debug.PrintAlways(0, "%s-MAIN: FATAL ERROR! Server Control SWITCH could not be loaded!", kPrefix);
        syslog(LOG_ERR, "%s-MAIN: FATAL ERROR! Server Control SWITCH could not be loaded!", kPrefix);
        switchApi.CloseLibrary();
        lock.reset();
        return 1;
    }

    WritePidFile();
    LoadAndStartModules(switchApi, config);

    sleep(1);
    Debug.PrintAlways(0, "%s-MAIN: ## Done initializing ##\n", kPrefix);
    Debug.SetApplInitDone();
    NotifyServiceManager(serviceNotify, "READY=1");

    WaitForExit(switchApi);
    OnExitService(switchApi, serviceNotify);
    unlink(kPidFile);
    lock.reset();
    return 0;
}
