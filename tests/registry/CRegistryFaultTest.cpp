// Saves that fail or are killed: the files on disk always load as one whole tree.
#include "support/RegistryFixture.h"
#include "support/SysLogCapture.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The tree of generation `gen` is fully determined by `gen`; its size varies, so that a partial
// file cannot look like a whole one, and needs several writes.
int ValueCount(unsigned gen) { return 100 + static_cast<int>(gen % 40); }

std::string ValueText(unsigned gen, int i)
{
    return "generation " + std::to_string(gen) + " value " + std::to_string(i) + std::string(i % 7 * 5, '*');
}

// Stores generation `gen` in place of the previous one and saves.
void WriteGeneration(unsigned gen)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    reg.DeleteValue("Data");
    ASSERT_EQ(reg.CreateKey(nullptr, "Data"), 0);
    for (int i = 0; i < ValueCount(gen); ++i)
        reg.SetValue(("value" + std::to_string(i)).c_str(), ValueText(gen, i).c_str());
    reg.SetValue("gen", gen);
}

// Loads the files afresh: the one whole generation they hold, else -1.
long LoadAndCheck()
{
    CRegistry::ResetForTests();
    CRegistry reg;
    unsigned gen = 0;
    if (reg.Open("HKEY_LOCAL_MACHINE/Data") != 0 || reg.QueryValue(&gen, "gen") != 0) {
        ADD_FAILURE() << "no whole registry could be loaded";
        return -1;
    }
    EXPECT_EQ(reg.GetKey()->GetCount(), ValueCount(gen) + 1) << "generation " << gen;
    for (int i = 0; i < ValueCount(gen); ++i) {
        std::string text;
        EXPECT_EQ(reg.QueryValue(text, ("value" + std::to_string(i)).c_str()), 0u);
        EXPECT_EQ(text, ValueText(gen, i));
    }
    return gen;
}

enum Kind { kOpen, kWrite, kFsync, kRename, kKinds };
const char* const kKindNames[] = {"open", "write", "fsync", "rename"};

int g_failKind = -1;
int g_failAt = 0;
int g_calls[kKinds];

// True (errno set to `err`) when this call of kind `k` is the one to fail.
bool Fail(Kind k, int err)
{
    if (++g_calls[k] != g_failAt || g_failKind != k)
        return false;
    errno = err;
    return true;
}
int FaultOpen(const char* path, int flags, mode_t mode) { return Fail(kOpen, EACCES) ? -1 : open(path, flags, mode); }
ssize_t FaultWrite(int fd, const void* data, size_t size) { return Fail(kWrite, ENOSPC) ? -1 : write(fd, data, size); }
int FaultFsync(int fd) { return Fail(kFsync, EIO) ? -1 : fsync(fd); }
int FaultRename(const char* from, const char* to) { return Fail(kRename, EXDEV) ? -1 : rename(from, to); }
const CRegistry::FileOps kFaultOps{FaultOpen, FaultWrite, FaultFsync, FaultRename};

class CRegistryFaultTest : public RegistryTest {
protected:
    void TearDown() override
    {
        CRegistry::SetFileOps(nullptr);
        RegistryTest::TearDown();
    }
};

TEST_F(CRegistryFaultTest, FailureAtEveryFileOperationKeepsTheTreeDirtyAndTheFilesWhole)
{
    // A clean save first, counting the calls of each kind.
    CRegistry::SetFileOps(&kFaultOps);
    WriteGeneration(1);
    const int clean[kKinds] = {g_calls[kOpen], g_calls[kWrite], g_calls[kFsync], g_calls[kRename]};
    // Several writes; one rename, as there is no current file yet to keep as backup.
    ASSERT_TRUE(clean[kOpen] == 1 && clean[kWrite] >= 2 && clean[kFsync] == 1 && clean[kRename] == 1)
        << clean[kOpen] << " " << clean[kWrite] << " " << clean[kFsync] << " " << clean[kRename];
    WriteGeneration(2);             // now there is a current file to rotate
    ASSERT_EQ(2, LoadAndCheck());

    // What the system log hears of each failure, whatever the trace level.
    const std::string fresh = "CRegistry: ERROR: Cannot write \"" + New() + "\": ";
    const std::string current = "\"" + Current() + "\"";
    const std::string logged[kKinds][2] = {
        {"CRegistry: ERROR: Cannot open \"" + New() + "\" for writing"},
        {fresh + "No space left on device", fresh + "No space left on device"}, {fresh + "Input/output error"},
        {"CRegistry: ERROR: Cannot rename " + current + " to \"" + Backup() + "\": Invalid cross-device link",
         "CRegistry: ERROR: Cannot rename \"" + New() + "\" to " + current + ": Invalid cross-device link"}};
    testsupport::TakeSysLogLines();
    long gen = 2;
    for (int kind = 0; kind < kKinds; ++kind) {
        const int calls = kind == kRename ? 2 : clean[kind];
        for (int at = 1; at <= calls; ++at) {
            SCOPED_TRACE(std::string(kKindNames[kind]) + " #" + std::to_string(at));
            std::fill(std::begin(g_calls), std::end(g_calls), 0);
            g_failKind = kind;
            g_failAt = at;
            WriteGeneration(gen + 1);
            g_failKind = -1;
            // Only a failed backup rotation lets the save go on.
            const bool saved = kind == kRename && at == 1;
            EXPECT_EQ(!saved, CRegistry::IsDirty());
            EXPECT_EQ(testsupport::TakeSysLogLines(),
                      (std::vector<std::pair<int, std::string>>{{saved ? 4 : 3, logged[kind][std::min(at, 2) - 1]}}));
            gen += saved ? 1 : 0;
            EXPECT_EQ(gen, LoadAndCheck());
            // The next save succeeds and is what a load then gives.
            std::fill(std::begin(g_calls), std::end(g_calls), 0);
            WriteGeneration(++gen);
            EXPECT_FALSE(CRegistry::IsDirty());
            EXPECT_EQ(gen, LoadAndCheck());
        }
    }
}

TEST_F(CRegistryFaultTest, PlantedSymlinkAtTheNewFileLeavesItsTargetUntouched)
{
    testsupport::TempDir other;
    const std::string victim = other.Sub("victim");
    ASSERT_TRUE(testsupport::WriteFile(victim, "precious\n"));
    ASSERT_EQ(0, symlink(victim.c_str(), New().c_str()));
    WriteGeneration(1);
    EXPECT_TRUE(CRegistry::IsDirty() && testsupport::ReadFile(victim) == "precious\n");  // the save refused the link
    // Once the link is gone the save goes through.
    ASSERT_EQ(0, unlink(New().c_str()));
    WriteGeneration(2);
    EXPECT_FALSE(CRegistry::IsDirty());
    EXPECT_TRUE(LoadAndCheck() == 2 && testsupport::ReadFile(victim) == "precious\n");
}

TEST_F(CRegistryFaultTest, ADumpIntoAStreamThatRunsOutOfRoomFails)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(reg.CreateKey(nullptr, "A/B"), 0);
    const unsigned char bytes[] = {1, 2, 3};
    ASSERT_TRUE(reg.SetValue("bin", bytes, sizeof bytes, RegBinary));
    // "[A]\n[B]\nbin=b=01 02 03 \n\n\n\n": full in the binary data, then in the closing lines.
    for (size_t room : {14, 25}) {
        char buffer[32];
        UniqueFile f(fmemopen(buffer, room, "w"));
        ASSERT_TRUE(f && setvbuf(f.Get(), nullptr, _IONBF, 0) == 0);
        EXPECT_FALSE(CRegistry::HKEY_LOCAL_MACHINE->dumpNode(f.Get())) << room;
    }
}

} // namespace

TEST_F(RegistryTest, KilledSavesLeaveAWholeTree)
{
    WriteGeneration(1);
    ASSERT_EQ(LoadAndCheck(), 1);
    std::mt19937 rng(12345);
    long lastGen = 1;
    for (int round = 0; round < 40; ++round) {
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Goes on from the tree just loaded, telling the parent of each completed save, until killed.
            for (unsigned gen = static_cast<unsigned>(lastGen) + 1;; ++gen) {
                WriteGeneration(gen);
                if (write(writeEnd.Get(), "s", 1) != 1)
                    _exit(4);
            }
        }
        writeEnd.Reset();
        // The kill falls at a random point after the first completed save
        // of this round, whatever the speed of the machine.
        char saved = 0;
        ASSERT_EQ(read(readEnd.Get(), &saved, 1), 1) << "round " << round;
        usleep(static_cast<useconds_t>(rng() % 5000));
        ASSERT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "child ended by itself, status " << status;
        long gen = LoadAndCheck();
        ASSERT_GT(gen, lastGen) << "round " << round;
        lastGen = gen;
    }
}
