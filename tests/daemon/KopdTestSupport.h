// The fixture of the end-to-end tests of kopd: the real binary in a sandbox
// with a recording stand-in of the framework, whose record is read.
#pragma once

#include <algorithm>

#include "support/Sandbox.h"

namespace kopdtest {

using namespace testsupport;
using Lines = std::vector<std::string>;

inline const std::string kRefused =
    TEST_KOPD_PATH ": KOPD-MAIN: Error! Another process instance is already running!\n";

class KopdTest : public KopdFixture {
protected:
    /// `runLevel`: when set, written to the run-level file before each case.
    explicit KopdTest(std::string runLevel = "")
        : KopdFixture(TEST_KOPD_PATH, TEST_RECORDING_SWITCH_DIR), m_RunLevel(std::move(runLevel))
    {
        m_Env = {"TEST_SWITCH_RECORD=" + RecordPath(), "SHIM_RECORD=" + ShimRecordPath()};
    }
    void SetUp() override
    {
        KopdFixture::SetUp();
        if (!IsSkipped() && !m_RunLevel.empty())
            SetRunLevel(m_RunLevel);
    }
    std::string RecordPath() const { return m_Dir.Sub("record.txt"); }
    std::string ShimRecordPath() const { return m_Dir.Sub("shim.txt"); }
    std::string Record() const { return ReadFile(RecordPath()); }
    Lines RecordLines() const { return SplitLines(Record()); }
    void ClearRecords() const
    {
        unlink(RecordPath().c_str());
        unlink(ShimRecordPath().c_str());
    }
    /// Starts `program` in the sandbox with a plain PATH and `env` alone, its output in Output().
    pid_t StartPlain(const std::string& program, const Lines& args, Lines env)
    {
        ++m_Launches;
        env.push_back("PATH=/usr/sbin:/usr/bin:/sbin:/bin");
        return m_Ns->Spawn({program, args, env, OutputFile()});
    }
    /// Runs `program` to its end that way: its status, and its output in `out`.
    int RunPlain(const std::string& program, const Lines& args, std::string& out)
    {
        int status = WaitExit(StartPlain(program, args, {}));
        out = Output();
        return status;
    }
    void SetRunLevel(const std::string& content) { ASSERT_TRUE(WriteFile(NsPath("/etc/tarvd/RunLevel"), content)); }

    /// Waits until the record has `line` (by default: the daemon has handed
    /// its modules to the framework; signals are blocked from before that).
    bool WaitStarted(const std::string& line = "slot4")
    {
        return WaitFor([&] {
            auto lines = RecordLines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    }
    /// Starts kopd, waits until its modules started and stops it cleanly.
    void StartAndStop(const Lines& args, const Lines& env)
    {
        pid_t pid = Start(args, env);
        ASSERT_TRUE(WaitStarted()) << Output();
        ASSERT_NO_FATAL_FAILURE(Stop(pid, SIGTERM));
    }
    /// Expects each of `pieces` in the trace (switched on by the variables) of
    /// the last launch, or in `dir`: the trace, for more checks.
    std::string ExpectTraced(const Lines& pieces, const std::string& dir = "")
    {
        std::string trace = ReadDaemonTrace(dir.empty() ? TraceDir() : dir);
        for (const std::string& piece : pieces)
            EXPECT_TRUE(Contains(trace, piece)) << piece;
        return trace;
    }

    const std::string m_RunLevel;
};

} // namespace kopdtest
