// Helpers of the tool tests: the child-process runner of the support and a
// strict JSON parser (nlohmann::json) to check and read the tools' output.
#pragma once

#include "support/ChildProcess.h"

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

namespace tooltest {

using testsupport::Child;
using testsupport::Run;
using testsupport::RunResult;
using nlohmann::json;

/// The whole of `text` as JSON (surrounding white space allowed); a value
/// whose is_discarded() is true when the text is not strict JSON.
inline json ParseOutput(const std::string& text) { return json::parse(text, nullptr, false); }

/// The element of array `items` whose member `key` equals `value`; null
/// when there is none.
const json* FindBy(const json& items, const char* key, const json& value);

/// A parsed document as a plain tree, for the trace tool's tests, which
/// still read their output in this form.
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

/// Strict parse of the whole text into the plain tree.
bool ParseJson(const std::string& text, Json& out, std::string* error = nullptr);

} // namespace tooltest
