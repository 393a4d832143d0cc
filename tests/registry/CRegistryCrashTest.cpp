// A process killed at any moment of a save must leave a registry that loads
// as one whole tree: the one saved before or the one being saved.
#include <csignal>
#include <cstring>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "support/RegistryFixture.h"

namespace {

/// The tree of generation `gen` is fully determined by `gen`: its size
/// varies so that a partial file cannot look like a whole one.
int ValueCount(unsigned gen) { return 5 + static_cast<int>(gen % 40); }

std::string ValueText(unsigned gen, int i)
{
    return "generation " + std::to_string(gen) + " value " + std::to_string(i) + std::string(i % 7 * 5, '*');
}

unsigned Checksum(unsigned gen)
{
    unsigned sum = gen;
    for (int i = 0; i < ValueCount(gen); ++i)
        for (char c : ValueText(gen, i))
            sum = sum * 31 + static_cast<unsigned char>(c);
    return sum;
}

void WriteGeneration(unsigned gen)
{
    CRegistry reg(CRegistry::HKEY_LOCAL_MACHINE);
    reg.DeleteValue("Data");  // drops the previous generation's subtree
    if (reg.CreateKey(nullptr, "Data") != 0)
        return;
    for (int i = 0; i < ValueCount(gen); ++i)
        reg.SetValue(("value" + std::to_string(i)).c_str(), ValueText(gen, i).c_str());
    reg.SetValue("sum", Checksum(gen));
    reg.SetValue("gen", gen);
    // The handle's destruction saves the tree.
}

/// Loads the tree afresh and checks it is exactly one whole generation.
/// Returns the generation, or -1 with a failure recorded.
long LoadAndCheck()
{
    CRegistry::ResetForTests();
    CRegistry reg;
    unsigned gen = 0, sum = 0;
    if (!CRegistry::IsSetUp() || reg.Open("HKEY_LOCAL_MACHINE/Data") != 0 || reg.QueryValue(&gen, "gen") != 0 ||
        reg.QueryValue(&sum, "sum") != 0) {
        ADD_FAILURE() << "no whole registry could be loaded";
        return -1;
    }
    EXPECT_EQ(sum, Checksum(gen));
    EXPECT_EQ(reg.GetKey()->GetCount(), ValueCount(gen) + 2) << "generation " << gen;
    for (int i = 0; i < ValueCount(gen); ++i) {
        std::string text;
        EXPECT_EQ(reg.QueryValue(text, ("value" + std::to_string(i)).c_str()), 0u);
        EXPECT_EQ(text, ValueText(gen, i));
    }
    return gen;
}

} // namespace

TEST_F(RegistryTest, KilledSavesLeaveAWholeTree)
{
    constexpr int kRounds = 40;
    WriteGeneration(1);
    ASSERT_EQ(LoadAndCheck(), 1);

    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> delayUs(0, 20000);
    long lastGen = 1;
    int rounds = 0;
    for (; rounds < kRounds; ++rounds) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Continue from what is on disk, saving new generations until killed.
            CRegistry::ResetForTests();
            unsigned gen = 0;
            {
                CRegistry reg;
                if (reg.Open("HKEY_LOCAL_MACHINE/Data") != 0 || reg.QueryValue(&gen, "gen") != 0)
                    _exit(3);
            }
            for (;;)
                WriteGeneration(++gen);
        }
        usleep(static_cast<useconds_t>(delayUs(rng)));
        ASSERT_EQ(kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "child ended by itself, status " << status;
        long gen = LoadAndCheck();
        ASSERT_GE(gen, lastGen) << "round " << rounds;
        lastGen = gen;
    }
    EXPECT_GT(lastGen, 1) << "no save completed in any round";
}
