// Saves of the registry that fail at every single write, fsync and rename:
// a failed save keeps the tree dirty and leaves files from which the
// previous tree still loads.  Also: files planted as symbolic links.
#include "support/RegistryFixture.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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
    // Stores generation `gen` and enough values for several writes, then
    // releases the handle (which saves).
    static void Change(unsigned gen)
    {
        CRegistry reg;
        ASSERT_EQ(0, reg.CreateKey(CRegistry::HKEY_LOCAL_MACHINE, "SOFTWARE/Fault", false, 0));
        ASSERT_EQ(0u, reg.SetValue("gen", gen));
        std::string filler(60, static_cast<char>('a' + gen % 26));
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(0u, reg.SetValue(("v" + std::to_string(i)).c_str(), filler.c_str()));
    }
    // The generation a fresh load from the files gives (0: none).
    static unsigned LoadedGeneration()
    {
        CRegistry::ResetForTests();
        CRegistry reg;
        unsigned gen = 0;
        if (reg.Open("HKEY_LOCAL_MACHINE/SOFTWARE/Fault", nullptr, 0) != 0)
            return 0;
        reg.QueryValue(&gen, "gen");
        return gen;
    }
};

TEST_F(CRegistryFaultTest, FailureAtEveryFileOperationKeepsTheTreeDirtyAndTheFilesWhole)
{
    // A clean save first, counting the calls of each kind.
    CRegistry::SetFileOps(&kFaultOps);
    Change(1);
    const int clean[kKinds] = {g_calls[kOpen], g_calls[kWrite], g_calls[kFsync], g_calls[kRename]};
    ASSERT_EQ(1, clean[kOpen]);
    ASSERT_GE(clean[kWrite], 2) << "the tree should need several writes";
    ASSERT_EQ(1, clean[kFsync]);
    ASSERT_EQ(1, clean[kRename]); // no current file yet: nothing to keep as backup
    Change(2);                    // now there is a current file to rotate
    ASSERT_EQ(2, LoadedGeneration());

    unsigned gen = 2;
    int rounds = 0;
    for (int kind = 0; kind < kKinds; ++kind) {
        const int calls = kind == kRename ? 2 : clean[kind];
        for (int at = 1; at <= calls; ++at) {
            SCOPED_TRACE(std::string(kKindNames[kind]) + " #" + std::to_string(at));
            ++rounds;
            std::fill(std::begin(g_calls), std::end(g_calls), 0);
            g_failKind = kind;
            g_failAt = at;
            Change(gen + 1);
            g_failKind = -1;
            // Only a failed backup rotation lets the save go on.
            const bool saved = kind == kRename && at == 1;
            EXPECT_EQ(!saved, CRegistry::IsDirty());
            gen += saved ? 1 : 0;
            EXPECT_EQ(gen, LoadedGeneration());
            // The next save succeeds and is what a load then gives.
            std::fill(std::begin(g_calls), std::end(g_calls), 0);
            Change(++gen);
            EXPECT_FALSE(CRegistry::IsDirty());
            EXPECT_EQ(gen, LoadedGeneration());
        }
    }
    RecordProperty("rounds", rounds);
    EXPECT_GE(rounds, 6);
}

TEST_F(CRegistryFaultTest, PlantedSymlinkAtTheNewFileLeavesItsTargetUntouched)
{
    testsupport::TempDir other;
    const std::string victim = other.Sub("victim");
    ASSERT_TRUE(testsupport::WriteFile(victim, "precious\n"));
    ASSERT_EQ(0, symlink(victim.c_str(), New().c_str()));
    Change(1);
    EXPECT_TRUE(CRegistry::IsDirty()); // the save refused the link
    EXPECT_EQ("precious\n", testsupport::ReadFile(victim));
    // Once the link is gone the save goes through.
    ASSERT_EQ(0, unlink(New().c_str()));
    Change(2);
    EXPECT_FALSE(CRegistry::IsDirty());
    EXPECT_EQ(2u, LoadedGeneration());
    EXPECT_EQ("precious\n", testsupport::ReadFile(victim));
}

} // namespace
