// The trace environment of the tests: the machine's trace variables cleared, a temporary trace
// directory (TR_LOG_RINGBUF_DIR), a configuration directory of the test's own (missing until a test
// writes files into it), CDebug objects of their own with syslog silenced, and readers for what
// they wrote; or the program's own `Debug` tracing into a temporary ring for a while.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "trace/CDebug.h"

namespace testsupport {

/// Trace variables set for the object's lifetime.
class TraceVariables {
public:
    /// Restores the variables newest first: a variable set twice gets its value from before back.
    ~TraceVariables();
    /// Sets (null: unsets) a variable until the end of the object.
    void Set(const char* name, const char* value) { m_Env.push_back(std::make_unique<ScopedEnv>(name, value)); }
    /// Unsets the machine's trace variables; the trace directory is `dir`.
    void Clear(const std::string& program, const std::string& dir);
    /// Tracing on at `level` with the smallest ring (1 MiB, 4 MiB at start-up).
    void SetTracing(const char* level);

private:
    std::vector<std::unique_ptr<ScopedEnv>> m_Env;
};

/// The program's `Debug` tracing at `level` into the ring of a temporary directory (library code
/// traces there) while the object lives; closed again (ClassInit) at its end.
class GlobalTrace : public TraceVariables {
public:
    explicit GlobalTrace(const char* level = "3");
    ~GlobalTrace();
    /// The messages of the ring.
    std::vector<std::string> Messages() const;
    bool Has(const std::string& message) const;

private:
    TempDir m_Dir;
};

class TraceEnv : public ::testing::Test, public TraceVariables {
public:
    /// The lines of a file.
    static std::vector<std::string> Lines(const std::string& path) { return SplitLines(ReadFile(path)); }
    /// The messages of entry lines (CTraceReader::MessageOf).
    static std::vector<std::string> Messages(const std::vector<std::string>& lines);
    /// The messages of a ring's entries in time order (empty when unreadable).
    static std::vector<std::string> RingMessages(const std::string& path, bool* wrapped = nullptr);
    static bool Contains(const std::vector<std::string>& v, const std::string& s)
    {
        return std::find(v.begin(), v.end(), s) != v.end();
    }
    /// A module's entry: `format` through CDebug::ClientPrintV under the caller name `name`.
    static void ClientPrint(CDebug& d, const char* name, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    /// Runs `body` in a forked child (signal dispositions and faults stay
    /// there) and returns the child's wait status, -1 when it could not run.
    static int InChild(const std::function<int()>& body);
    /// Expects a normal exit of the child with `code`.
    static void ExpectExit(int status, int code);

protected:
    explicit TraceEnv(std::string program = "testprog") : m_Program(std::move(program)) {}
    void SetUp() override { Clear(m_Program, m_Dir.Path()); }

    /// A CDebug configured from m_ConfigDir and the environment.
    std::unique_ptr<CDebug> Make(const char* name = nullptr);
    /// A CDebug as Make, tracing at `level` (SetTracing).
    std::unique_ptr<CDebug> MakeTracing(const char* level = "3");
    /// Writes a configuration file into m_ConfigDir.
    void WriteConfig(const std::string& file, const std::string& text)
    {
        ASSERT_TRUE(WriteFile(m_ConfigDir + "/" + file, text));
    }
    std::string LogPath() const { return m_Dir.Sub("log." + m_Program); }

    std::string m_Program;
    TempDir m_Dir;
    std::string m_ConfigDir = m_Dir.Sub("config");
};

} // namespace testsupport
