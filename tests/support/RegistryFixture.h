// The registry tests' fixture: every test gets its own registry directory
// and a fresh class-wide tree.  Header-only: it is included by the test
// programs that use it, never linked into the others.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/UniqueHandle.h"
#include "registry/CRegistry.h"
#include "support/TestSupport.h"

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(m_Dir.Path().empty());
        CRegistry::SetRegistryDirectory(m_Dir.Path().c_str());
    }
    void TearDown() override
    {
        // Point the class at a directory that does not exist, so that
        // nothing after this test can reach the machine's registry.
        CRegistry::SetRegistryDirectory((m_Dir.Path() + "/gone").c_str());
    }
    std::string Current() const { return m_Dir.Sub(CRegistry::kCurrentName); }
    std::string Backup() const { return m_Dir.Sub(CRegistry::kBackupName); }
    std::string Default() const { return m_Dir.Sub(CRegistry::kDefaultName); }
    std::string New() const { return m_Dir.Sub(CRegistry::kNewName); }
    /// Drops the tree so that the next handle loads from the files.
    static void Reload() { CRegistry::ResetForTests(); }
    /// The block `node` writes (its values, subkeys and closing empty line).
    static std::string Dump(const CRegistryNode& node)
    {
        char* text = nullptr;
        size_t size = 0;
        UniqueFile f(open_memstream(&text, &size));
        EXPECT_TRUE(f && node.dumpNode(f.Get()));
        f.Reset();  // flushes into `text`
        std::string out(text ? text : "", size);
        free(text);
        return out;
    }

    testsupport::TempDir m_Dir;
};
