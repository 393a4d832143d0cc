// Signal handling and the shutdown decision of the daemon.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include "common/UniqueHandle.h"
#include "daemon/kopd/Kopd.h"
#include "trace/CDebug.h"

namespace {

using namespace kopd;

// Only the agent package's stop scripts write the run-level file, so its
// absence after three tries means an administrator stopped the daemon.
int RunLevelFromFile()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        UniqueFile file(fopen(kRunLevelFile, "re"));
        if (!file) {
            Debug.PrintAlways(0, "%s-MAIN: cannot open %s (try %d)\n", kPrefix, kRunLevelFile, attempt);
            sleep(1);
            continue;
        }
        int value = 0;
        if (fscanf(file.Get(), "%d", &value) != 1)
            return -1;
        DBG_PRINT(1, "%s-MAIN: OS shutdown reguired: RunLevel = %d from %s\n", kPrefix, value, kRunLevelFile);
        return (value == 0 || value == 6) ? value : -1;
    }
    Debug.PrintAlways(0, "%s-MAIN: this seems to be a simple stop of %s (not OS shutdown)\n", kPrefix, kPrefix);
    return 5;
}

int RunLevelFromCommand()
{
    FILE* pipe = popen(kRunLevelCommand, "re");
    if (!pipe)
        return -1;
    char line[64] = {};
    int level = -1;
    if (fgets(line, sizeof line, pipe)) {
        const char* blank = strchr(line, ' ');
        if (blank)
            level = blank[1] - '0';
    }
    pclose(pipe);
    return level;
}

int RunLevelFromUtmp()
{
    DBG_PRINT(1, "%s-MAIN: try to indentify runlevel on older OS\n", kPrefix);
    int level = -1;
    bool found = false;
    setutent();
    while (struct utmp* record = getutent()) {
        if (record->ut_type == RUN_LVL) {
            level = (record->ut_pid % 256) - '0';
            found = true;
            break;
        }
    }
    endutent();
    if (!found || level == -1)
        level = RunLevelFromCommand();
    return level;
}

int DetermineRunLevel()
{
    const char* nickname = getenv("TR_NICKNAME");
    bool named = nickname && *nickname;
    if (!named)
        Debug.PrintAlways(0, "%s-MAIN: cannot identify OS (from TR_NICKNAME) on which we are running\n", kPrefix);
    else
        DBG_PRINT(1, "%s-MAIN: we are runing on OS \"%s\"\n", kPrefix, nickname);

    int level;
    struct stat st {};
    if (stat(kSystemctl, &st) == 0) {
        DBG_PRINT(1, "%s-MAIN: %s detected on this OS\n", kPrefix, kSystemctl);
        level = RunLevelFromFile();
    } else if (named && (strcmp(nickname, "RHEL7") == 0 || strcmp(nickname, "SLES12") == 0 ||
                         strcmp(nickname, "OL7") == 0)) {
        level = RunLevelFromFile();
    } else {
        level = RunLevelFromUtmp();
    }
    Debug.PrintAlways(0, "%s-MAIN: Current RunLevel = %d\n", kPrefix, level);
    return level;
}

} // namespace

void CatchSignals(int signal, CSwitchApi& switchApi)
{
    if (signal == SIGALRM) {
        Debug.PrintAlways(0, "%s-MAIN: WARNING: Signal %d (SIGALRM) caught -> ignoring\n", kPrefix, SIGALRM);
        return;
    }
    if (signal == SIGHUP) {
        Debug.PrintAlways(0, "%s-MAIN: Signal %d (SIGHUP) caught\n", kPrefix, SIGHUP);
        if (Debug.IsEnabled()) {
            Debug.PrintAlways(0, "%s-MAIN: Trace reset due to SIGHUP\n", kPrefix);
            Debug.ForceMaxDebug(false);
        } else {
            Debug.ForceMaxDebug(true);
            Debug.PrintAlways(0, "%s-MAIN: Trace forced due to SIGHUP\n", kPrefix);
        }
        return;
    }

    Debug.PrintAlways(0, "%s-MAIN: Signal %d caught -> processing\n", kPrefix, signal);
    int runLevel = DetermineRunLevel();

    if (SwitchInterface* sw = switchApi.Interface()) {
        sw->NotifySystemEvent(SW_EVENT_DAEMON_STOPPING, nullptr, 0);
        if (runLevel == 0 || runLevel == 6)
            sw->NotifySystemEvent(SW_EVENT_OS_SHUTDOWN, &runLevel, 0);
    }
    g_ExitEvent.Set();

    if (signal != SIGHUP && signal != SIGINT && signal != SIGTERM) {
        Debug.PrintAlways(0, "%s-MAIN: Unexpected Signal %d caught -> ABORT\n", kPrefix, signal);
        abort();
    }
}
