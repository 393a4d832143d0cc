// The registry tests' fixture: every test gets its own registry directory and a fresh class-wide
// tree. Header-only: it is included by the test programs that use it, never linked into the others.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

namespace testsupport {

// Readers of values below HKEY_LOCAL_MACHINE: each with a handle of its own, released at once.

inline bool HasValue(CRegistry& reg, const std::string& key, const char* name, unsigned type)
{
    return reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) == 0 && reg.GetValue(name) &&
           reg.GetLastType() == type;
}

/// A number (type 4 only), or `fallback`.
inline uint32_t NumberOr(const std::string& key, const char* name, uint32_t fallback)
{
    CRegistry reg;
    unsigned n = 0;
    return HasValue(reg, key, name, 4) && reg.QueryValue(&n, name) == 0 ? n : fallback;
}

/// A text (type 1 only), or `fallback`.
inline std::string TextOr(const std::string& key, const char* name, const std::string& fallback = "<none>")
{
    CRegistry reg;
    std::string t;
    return HasValue(reg, key, name, 1) && reg.QueryValue(t, name) == 0 ? t : fallback;
}

/// Names of the subkeys of `key`, in the tree's order.
inline std::vector<std::string> SubKeys(const std::string& key)
{
    std::vector<std::string> names;
    CRegistry reg;
    char name[256];
    if (reg.Open(key.c_str(), CRegistry::HKEY_LOCAL_MACHINE) == 0)
        for (unsigned i = 0, size = sizeof name; reg.EnumKey(name, &size, i) == 0; ++i, size = sizeof name)
            names.emplace_back(name);
    return names;
}

} // namespace testsupport
