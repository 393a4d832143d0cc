// Helpers of the tool tests: a strict JSON parser to check and read their
// output (the tools run through the child-process runner of the support).
#pragma once

#include "support/ChildProcess.h"

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tooltest {

using testsupport::Child;
using testsupport::Run;
using testsupport::RunResult;

/// A parsed JSON value.
struct Json {
    enum Type { Null, Bool, Number, String, Array, Object } type = Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    bool IsNull() const { return type == Null; }
    /// The member `name` (a Null value when absent).
    const Json& operator[](const std::string& name) const;
    const Json& operator[](size_t index) const;
    bool Has(const std::string& name) const;
    size_t Size() const { return type == Array ? items.size() : members.size(); }
};

/// Strict RFC 8259 parse of the whole text (surrounding white space allowed).
bool ParseJson(const std::string& text, Json& out, std::string* error = nullptr);

} // namespace tooltest
