// A fixture for tests that trace into real ring-buffer files of their own:
// the machine's trace environment is cleared, and a CDebug made by Make()
// traces at level 3 into the smallest ring (1 MiB, 4 MiB at start-up) in a
// temporary directory, without configuration files and without syslog.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "trace/CDebug.h"

class RingTraceFixture : public ::testing::Test {
protected:
    explicit RingTraceFixture(std::string program) : m_Program(std::move(program)) {}

    void SetUp() override
    {
        std::string perProgram = "TR_LOG_RINGBUF_WEIGHT_" + m_Program;
        for (auto& c : perProgram)
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        for (const char* v : {"TR_LOG_DYNAMIC_UPDATE", "TR_LOG_FILE_DIR", "TR_LOG_FILE_MAX_SIZE",
                              "TR_LOG_NOHDR_TOSDTERR", perProgram.c_str()})
            Set(v, nullptr);
        Set("TR_LOG_RINGBUF_DIR", m_Dir.Path().c_str());
        Set("TR_LOG_DEBUG_LEVEL", "3");
        Set("TraceFileLimit", "1");
        Set("TR_LOG_RINGBUF_WEIGHT", "1");
    }
    void Set(const char* name, const char* value)
    {
        m_Env.push_back(std::make_unique<testsupport::ScopedEnv>(name, value));
    }
    std::unique_ptr<CDebug> Make()
    {
        auto d = std::make_unique<CDebug>();
        d->SetSysLogFunction([](int, const char*) {});
        d->SetConfigDirectory(m_Dir.Sub("no-config").c_str());
        d->Init(m_Program.c_str());
        return d;
    }

    std::string m_Program;
    testsupport::TempDir m_Dir;
    std::vector<std::unique_ptr<testsupport::ScopedEnv>> m_Env;
};
