// The trace environment of the tests: the machine's trace variables cleared,
// a temporary trace directory (TR_LOG_RINGBUF_DIR), a configuration directory
// of the test's own (missing until a test writes files into it), CDebug
// objects of their own with syslog silenced, and readers for what they wrote.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "trace/CDebug.h"

namespace testsupport {

class TraceEnv : public ::testing::Test {
protected:
    explicit TraceEnv(std::string program = "testprog") : m_Program(std::move(program)) {}
    ~TraceEnv() override;
    void SetUp() override;

    /// Sets (null: unsets) a variable until the end of the test.
    void Set(const char* name, const char* value);
    /// A CDebug configured from m_ConfigDir and the environment.
    std::unique_ptr<CDebug> Make(const char* name = nullptr);
    /// Tracing on at `level` with the smallest ring (1 MiB, 4 MiB at start-up).
    std::unique_ptr<CDebug> MakeTracing(const char* level = "3");
    /// Writes a configuration file into m_ConfigDir.
    void WriteConfig(const std::string& file, const std::string& text);
    std::string LogPath() const { return m_Dir.Sub("log." + m_Program); }

    /// The lines of a file.
    static std::vector<std::string> Lines(const std::string& path);
    /// The messages of entry lines (CTraceReader::MessageOf).
    static std::vector<std::string> Messages(const std::vector<std::string>& lines);
    /// The messages of a ring's entries in time order (empty when unreadable).
    static std::vector<std::string> RingMessages(const std::string& path, bool* wrapped = nullptr);
    static bool Contains(const std::vector<std::string>& v, const std::string& s);

    /// Runs `body` in a forked child (signal dispositions and faults stay
    /// there) and returns the child's wait status, -1 when it could not run.
    static int InChild(const std::function<int()>& body);
    /// Expects a normal exit of the child with `code`.
    static void ExpectExit(int status, int code);

    std::string m_Program;
    TempDir m_Dir;
    std::string m_ConfigDir = m_Dir.Sub("config");
    std::vector<std::unique_ptr<ScopedEnv>> m_Env;
};

} // namespace testsupport
