// Helpers of the tool tests: the child-process runner of the support and a
// strict JSON parser (nlohmann::json) to check and read the tools' output.
#pragma once

#include "support/ChildProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tooltest {

using testsupport::Child;
using testsupport::Run;
using testsupport::RunResult;
using nlohmann::json;

/// The whole of `text` as JSON (surrounding white space allowed); a value
/// whose is_discarded() is true when the text is not strict JSON.
inline json ParseOutput(const std::string& text) { return json::parse(text, nullptr, false); }

/// The element of array `items` whose member `key` equals `value`; null when there is none.
inline const json* FindBy(const json& items, const char* key, const json& value)
{
    if (!items.is_array())
        return nullptr;
    for (const json& item : items)
        if (item.is_object() && item.contains(key) && item.at(key) == value)
            return &item;
    return nullptr;
}

/// Success when every member of the object `subset` (JSON text) is in
/// `*object` with the same value.
inline ::testing::AssertionResult HasMembers(const json* object, const char* subset)
{
    if (object == nullptr)
        return ::testing::AssertionFailure() << "no such object";
    const json expected = json::parse(subset);
    for (const auto& [key, value] : expected.items())
        if (!object->contains(key) || object->at(key) != value)
            return ::testing::AssertionFailure() << "member " << key << " differs in " << *object;
    return ::testing::AssertionSuccess();
}

/// The output of `program` run with `args`, which must end with `status`, as strict JSON.
inline json RunJson(const std::string& program, const std::vector<std::string>& args, int status = 0)
{
    RunResult r = Run(program, args);
    EXPECT_TRUE(r.Exited(status)) << "status " << r.exitCode << " signal " << r.signal << " " << r.err;
    json j = ParseOutput(r.out);
    EXPECT_FALSE(j.is_discarded()) << r.out.substr(0, 1000);
    return j;
}

/// A refused run: `status` and `message` on either output.  A failure prints
/// no figures: with --json one document with an error member, else nothing.
inline void ExpectRefused(const std::string& program, const std::vector<std::string>& args, int status,
                          const std::string& message)
{
    RunResult r = Run(program, args);
    EXPECT_TRUE(r.Exited(status)) << message << ": status " << r.exitCode << " signal " << r.signal;
    EXPECT_NE((r.out + r.err).find(message), std::string::npos) << r.out << r.err;
    if (std::find(args.begin(), args.end(), "--json") != args.end()) {
        EXPECT_TRUE(ParseOutput(r.out).contains("error")) << r.out;
    } else if (status != 0) {
        EXPECT_EQ(r.out, "") << message;
    }
}

/// Runs `program` as a user without privileges over the test's files: as nobody when the test runs
/// as root (`dir`, the test's folder, is then opened to others so that only the files' own modes
/// count), else as the test's own user.
inline RunResult RunUnprivileged(const std::string& dir, const std::string& program, std::vector<std::string> args)
{
    if (geteuid() != 0)
        return Run(program, args);
    chmod(dir.c_str(), 0755);
    args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", "--", program});
    return Run("/usr/bin/setpriv", args);
}

} // namespace tooltest
