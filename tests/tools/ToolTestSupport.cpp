#include "ToolTestSupport.h"

namespace tooltest {

const json* FindBy(const json& items, const char* key, const json& value)
{
    if (!items.is_array())
        return nullptr;
    for (const json& item : items)
        if (item.is_object() && item.contains(key) && item.at(key) == value)
            return &item;
    return nullptr;
}

namespace {

// Member order as written: the tests look at documents in the tools' order.
Json ToTree(const nlohmann::ordered_json& v)
{
    Json out;
    if (v.is_boolean()) {
        out.type = Json::Bool;
        out.boolean = v.get<bool>();
    } else if (v.is_number()) {
        out.type = Json::Number;
        out.number = v.get<double>();
    } else if (v.is_string()) {
        out.type = Json::String;
        out.text = v.get<std::string>();
    } else if (v.is_array()) {
        out.type = Json::Array;
        for (const auto& item : v)
            out.items.push_back(ToTree(item));
    } else if (v.is_object()) {
        out.type = Json::Object;
        for (const auto& member : v.items())
            out.members.emplace_back(member.key(), ToTree(member.value()));
    }
    return out;
}

const Json& NullJson()
{
    static const Json kNull;
    return kNull;
}

} // namespace

const Json& Json::operator[](const std::string& name) const
{
    for (const auto& m : members)
        if (m.first == name)
            return m.second;
    return NullJson();
}

const Json& Json::operator[](size_t index) const { return index < items.size() ? items[index] : NullJson(); }

bool Json::Has(const std::string& name) const { return &(*this)[name] != &NullJson(); }

bool ParseJson(const std::string& text, Json& out, std::string* error)
{
    out = Json();
    try {
        out = ToTree(nlohmann::ordered_json::parse(text));
        return true;
    } catch (const nlohmann::json::exception& e) {
        if (error)
            *error = e.what();
        return false;
    }
}

} // namespace tooltest
