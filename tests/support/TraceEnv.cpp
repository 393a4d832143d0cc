#include "support/TraceEnv.h"

#include "trace/CTraceReader.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

void TraceVariables::Clear(const std::string& program, const std::string& dir)
{
    std::string perProgram = "TR_LOG_RINGBUF_WEIGHT_" + program;
    for (auto& c : perProgram)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    for (const char* v : {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_DEBUG_LEVEL", "TR_LOG_FILE_DIR", "TR_LOG_FILE_MAX_SIZE",
                          "TR_LOG_RINGBUF_WEIGHT", "TR_LOG_NOHDR_TOSDTERR", "TraceFileLimit", perProgram.c_str()})
        Set(v, nullptr);
    Set("TR_LOG_RINGBUF_DIR", dir.c_str());
}

TraceVariables::~TraceVariables()
{
    while (!m_Env.empty())
        m_Env.pop_back();
}

void TraceVariables::SetTracing(const char* level)
{
    Set("TR_LOG_DEBUG_LEVEL", level);
    Set("TraceFileLimit", "1");
    Set("TR_LOG_RINGBUF_WEIGHT", "1");
}

GlobalTrace::GlobalTrace(const char* level)
{
    Clear("testprog", m_Dir.Path());
    SetTracing(level);
    Debug.SetSysLogFunction([](int, const char*) {});
    Debug.SetConfigDirectory(m_Dir.Sub("config").c_str());
    Debug.Init("testprog");
}

GlobalTrace::~GlobalTrace() { Debug.ClassInit(); }

std::vector<std::string> GlobalTrace::Messages() const
{
    return TraceEnv::RingMessages(m_Dir.Sub("log.testprog_i"));
}

bool GlobalTrace::Has(const std::string& message) const { return TraceEnv::Contains(Messages(), message); }

std::unique_ptr<CDebug> TraceEnv::Make(const char* name)
{
    auto d = std::make_unique<CDebug>();
    d->SetSysLogFunction([](int, const char*) {});
    d->SetConfigDirectory(m_ConfigDir.c_str());
    d->Init(name ? name : m_Program.c_str());
    return d;
}

std::unique_ptr<CDebug> TraceEnv::MakeTracing(const char* level)
{
    SetTracing(level);
    return Make();
}

void TraceEnv::ClientPrint(CDebug& d, const char* name, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    d.ClientPrintV(format, args, name);
    va_end(args);
}

std::vector<std::string> TraceEnv::Messages(const std::vector<std::string>& lines)
{
    std::vector<std::string> out;
    for (auto& l : lines)
        out.push_back(CTraceReader::MessageOf(l));
    return out;
}

std::vector<std::string> TraceEnv::RingMessages(const std::string& path, bool* wrapped)
{
    std::vector<std::string> entries;
    CTraceReader::ReadRingBuffer(path, entries, wrapped);
    return Messages(entries);
}

int TraceEnv::InChild(const std::function<int()>& body)
{
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0)
        _exit(body());
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -1;
    return status;
}

void TraceEnv::ExpectExit(int status, int code)
{
    ASSERT_NE(status, -1);
    ASSERT_FALSE(WIFSIGNALED(status)) << "killed by signal " << WTERMSIG(status);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(code, WEXITSTATUS(status));
}

} // namespace testsupport
