// The ring file cut under the running program, and bus errors that have nothing to do with the
// ring.  Every case runs in a child process (signal dispositions are process-wide, and some cases
// are meant to die); the child's exit code says what failed.
#include "trace/CDebug.h"

#include "support/TraceEnv.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define RING_CUT_TEST_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define RING_CUT_TEST_SANITIZER 1
#endif
#endif

namespace {

constexpr int kOk = 0, kNoRing = 2, kNotRestored = 3, kEntryMissing = 4, kEntryTwice = 5, kNoWrap = 6;
constexpr int kSetupFailed = 7, kSurvivedFault = 8, kOwnHandlerRan = 42;

// Maps a fresh file of two pages, cuts it to nothing and touches the mapping: a bus error that has
// nothing to do with the ring.  kSurvivedFault when the process lives on.
int TouchCutMapping(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, 8192) != 0)
        return kSetupFailed;
    void* map = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED || truncate(path.c_str(), 0) != 0)
        return kSetupFailed;
    static_cast<volatile char*>(map)[4096] = 'x';
    return kSurvivedFault;
}

bool InstallOwnBusHandler()
{
    struct sigaction sa {};
    sa.sa_sigaction = [](int, siginfo_t*, void*) { _exit(kOwnHandlerRan); };
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    return sigaction(SIGBUS, &sa, nullptr) == 0;
}

class CDebugRingCutFaultTest : public testsupport::TraceEnv {
protected:
    CDebugRingCutFaultTest() : TraceEnv("cutprog") {}
    // Runs `body` in a child with tracing at level 3 into the active ring (1 MiB), the program's
    // own SIGBUS handler installed before when asked for; the child's wait status.
    int InActiveChild(const std::function<int(CDebug&)>& body, bool ownBusHandler = false)
    {
        return InChild([&] {
            if (ownBusHandler && !InstallOwnBusHandler())
                return kSetupFailed;
            auto d = MakeTracing();
            d->SetApplInitDone();
            return d->GetTarget() == CDebug::TARGET_RINGBUFFER ? body(*d) : kNoRing;
        });
    }
    // kOk when `what` is in the ring exactly once.
    static int Once(const CDebug& d, const std::string& what)
    {
        size_t n = testsupport::CountOf(testsupport::ReadFile(d.GetActiveRingPath()), what);
        return n == 1 ? kOk : n == 0 ? kEntryMissing : kEntryTwice;
    }
    static bool WholeSize(const CDebug& d)
    {
        struct stat st {};
        return stat(d.GetActiveRingPath(), &st) == 0 && static_cast<uint64_t>(st.st_size) == d.GetRingBufferSize();
    }
};

TEST_F(CDebugRingCutFaultTest, CutBeforeEveryEntryAcrossAWrapLosesNothingWrittenAfterIt)
{
    ExpectExit(InActiveChild([](CDebug& d) {
                   const std::string ring = d.GetActiveRingPath();
                   const char* fill = "\nCutTest            : fill S%d padding-padding-padding-padding END";
                   int i = 0;
                   while (d.GetRingWrapCount() == 0 && i < 100000)  // close to the end without cuts
                       d.Print(1, fill, i++);
                   // Up to the second wrap (about ten thousand entries of ~100 bytes) every entry,
                   // the wrap itself included, meets a file cut to nothing.
                   const int firstCut = i;
                   while (d.GetRingWrapCount() == 1 && i < firstCut + 100000) {
                       if (truncate(ring.c_str(), 0) != 0)
                           return kNoRing;
                       d.Print(1, fill, i++);
                   }
                   if (d.GetRingWrapCount() != 2)
                       return kNoWrap;
                   if (!WholeSize(d))
                       return kNotRestored;
                   // The entry that wrapped went in whole behind the start-up
                   // part, after the rewritten log header.
                   if (int rc = Once(d, "fill S" + std::to_string(i - 1) + " padding-padding-padding-padding END\n"))
                       return rc;
                   return testsupport::Contains(testsupport::ReadFile(ring), "Ring Buffer Path") ? kOk : kEntryMissing;
               }),
               kOk);
}

TEST_F(CDebugRingCutFaultTest, CutsFromAnotherThreadWhileWritingAndWrappingDoNotKill)
{
    ExpectExit(InActiveChild([](CDebug& d) {
                   const std::string ring = d.GetActiveRingPath();
                   std::atomic<bool> stop{false};
                   std::thread cutter([&] {
                       for (unsigned k = 0; !stop.load(); ++k) {
                           if (truncate(ring.c_str(), k % 3 ? 0 : 5000) != 0)
                               break;
                           usleep(50);
                       }
                   });
                   // Faults land anywhere: in entries, the wrap filler, the
                   // log header written at a wrap, and in the retries.
                   for (int i = 0; i < 30000; ++i)
                       d.Print(1, "\nCutTest            : racing S%d padding-padding-padding-padding END", i);
                   stop = true;
                   cutter.join();
                   if (d.GetRingWrapCount() < 2)
                       return kNoWrap;
                   d.Print(1, "\nCutTest            : after the cutter END");
                   return WholeSize(d) ? Once(d, "after the cutter END\n") : kNotRestored;
               }),
               kOk);
}

TEST_F(CDebugRingCutFaultTest, BusErrorOutsideTheRingStillKills)
{
    const std::string other = m_Dir.Sub("other-mapping");
    int status = InActiveChild([&](CDebug& d) {
        d.Print(1, "\nCutTest            : before the fault");
        // A sanitizer reports the fault on stderr: keep it out of the test log.
        int err = open((other + ".stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (err >= 0)
            dup2(err, STDERR_FILENO);
        return TouchCutMapping(other);
    });
    ASSERT_NE(-1, status);
#ifdef RING_CUT_TEST_SANITIZER
    // The sanitizer's own handling of the fault reports it and ends the process: with its error
    // code, or by abort() when it is told to (abort_on_error=1, as the test script sets).
    if (WIFEXITED(status)) {
        EXPECT_TRUE(WEXITSTATUS(status) != kSurvivedFault && WEXITSTATUS(status) != kOk) << WEXITSTATUS(status);
        return;
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT)
        return;
#endif
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit code " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    EXPECT_EQ(SIGBUS, WTERMSIG(status));
}

TEST_F(CDebugRingCutFaultTest, HandlerInstalledBeforeTheTraceGetsForeignBusErrorsAndRingCutsStaySilent)
{
    const std::string other = m_Dir.Sub("other-mapping");
    int status = InActiveChild([&](CDebug& d) {
        // A cut ring (here to less than a page: the entries go to pages behind the new end) is
        // handled by the trace alone: the program's handler would end the child with its own code.
        for (int i = 0; i < 300; ++i)
            d.Print(1, "\nCutTest            : before %d", i);
        if (truncate(d.GetActiveRingPath(), 100) != 0)
            return kSetupFailed;
        for (int i = 0; i < 100; ++i)
            d.Print(1, "\nCutTest            : after cut S%d END", i);
        if (!WholeSize(d))
            return kNotRestored;
        for (int i = 0; i < 100; ++i)
            if (int rc = Once(d, "after cut S" + std::to_string(i) + " END\n"))
                return rc;
        return TouchCutMapping(other);
    }, true);
    ExpectExit(status, kOwnHandlerRan);
}

} // namespace
