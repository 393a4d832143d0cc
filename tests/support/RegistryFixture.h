// The registry tests' fixture: every test gets its own registry directory
// and a fresh class-wide tree.  Header-only: it is included by the test
// programs that use it, never linked into the others.
#pragma once

#include <gtest/gtest.h>

#include <string>

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

    testsupport::TempDir m_Dir;
};
