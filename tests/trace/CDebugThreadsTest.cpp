// Threads tracing into one wrapping ring: every entry whole, exactly once.
#include "support/TraceEnv.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace testsupport;

namespace {

class CDebugThreadsTest : public TraceEnv {};

// 8 threads, entries of ~400 bytes, the 4 MiB start-up ring wrapping about
// three times.  In time order each thread's surviving entries must be a
// gapless run up to its last (the ring drops only the oldest), and every line
// one whole entry.  Not timed.
TEST_F(CDebugThreadsTest, EightThreadsIntoAWrappingRingGiveWholeEntriesNoneLostOrDuplicated)
{
    constexpr int kThreads = 8, kPerThread = 4000;
    const std::string padding(380, 'x');
    auto d = MakeTracing("3");
    ASSERT_EQ(d->GetTarget(), CDebug::TARGET_RINGBUFFER);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int n = 0; n < kPerThread; ++n)
                d->Print(3, "\nringthread T%d N%06d %s end", t, n, padding.c_str());
        });
    for (auto& th : threads)
        th.join();
    EXPECT_GE(d->GetRingWrapCount(), 2u);
    bool wrapped = false;
    const std::vector<std::string> messages = RingMessages(d->GetInitialRingPath(), &wrapped);
    EXPECT_TRUE(wrapped);
    std::map<int, std::vector<int>> seen;
    size_t ours = 0;
    for (const std::string& m : messages) {
        if (m.rfind("###", 0) == 0)  // the ring's own begin/start lines
            continue;
        int thread = -1, number = -1, used = 0;
        const bool whole = sscanf(m.c_str(), "ringthread T%1d N%6d %n", &thread, &number, &used) == 2 &&
                           used == 22 && m.compare(used, std::string::npos, padding + " end") == 0;
        ASSERT_TRUE(whole) << "not a whole entry: " << m.substr(0, 120);
        seen[thread].push_back(number);
        ++ours;
    }
    EXPECT_GT(ours, 8000u);  // nearly a whole ring (4 MiB / ~450 bytes)
    for (const auto& [thread, numbers] : seen) {
        for (size_t i = 1; i < numbers.size(); ++i)
            ASSERT_EQ(numbers[i], numbers[i - 1] + 1) << "thread " << thread << " lost or repeated an entry";
        EXPECT_EQ(numbers.back(), kPerThread - 1) << "thread " << thread;
    }
}

// Threads keep tracing while the program is initialised again under other
// names: every entry carries one of the names whole (a thread copies the
// name under the lock, never while Init replaces it), and the entries written
// after the last Init carry the last name.
TEST_F(CDebugThreadsTest, RenamingWhileThreadsTraceGivesWholeNames)
{
    auto d = MakeTracing("3");
    ASSERT_EQ(d->GetTarget(), CDebug::TARGET_RINGBUFFER);
    const char* const names[] = {"alphaprog", "betaprogram"};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            while (!stop.load())
                d->Print(3, "\nrenamethread entry");
        });
    for (int i = 0; i < 6; ++i)
        d->Init(names[i % 2]);
    stop = true;
    for (auto& th : threads)
        th.join();
    d->Print(3, "\nrenamethread last");
    size_t checked = 0;
    for (const std::string& line : Lines(d->GetInitialRingPath())) {
        // "time [thread] name " or, with the memory column, "... KB !name ".
        size_t at = line.find("] ");
        if (line.find("renamethread") == std::string::npos || at == std::string::npos)
            continue;
        at = line.find(" !", at) != std::string::npos ? line.find(" !", at) + 2 : at + 2;
        const std::string name = line.substr(at, line.find(' ', at) - at);
        ASSERT_TRUE(name == names[0] || name == names[1]) << line;
        if (line.find("renamethread last") != std::string::npos) {
            EXPECT_EQ(name, names[1]);
        }
        ++checked;
    }
    EXPECT_GT(checked, 0u);
}

} // namespace
