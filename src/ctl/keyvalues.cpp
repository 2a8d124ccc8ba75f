#include "ctl/keyvalues.h"

#include <algorithm>

#include "ctl/failure.h"

namespace ctl {

namespace {

std::string listed(std::initializer_list<std::string_view> names) {
    std::string text;
    for (const std::string_view name : names) {
        if (!text.empty()) text += ", ";
        text += name;
    }
    return text;
}

}  // namespace

KeyValues::KeyValues(const std::vector<std::string>& arguments,
                     std::initializer_list<std::string_view> known) {
    for (const std::string& argument : arguments) {
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos)
            throw misuse("'" + argument + "': expected KEY=VALUE; keys: " + listed(known));
        const std::string key = argument.substr(0, equals);
        if (std::find(known.begin(), known.end(), key) == known.end())
            throw misuse("unknown key '" + key + "'; there are: " + listed(known));
        if (!values.emplace(key, argument.substr(equals + 1)).second)
            throw misuse("'" + key + "' is given twice");
    }
}

std::optional<std::string> KeyValues::text(const std::string& key) const {
    const auto found = values.find(key);
    if (found == values.end()) return std::nullopt;
    return found->second;
}

std::optional<bool> KeyValues::flag(const std::string& key) const {
    const auto value = text(key);
    if (!value) return std::nullopt;
    if (*value == "yes") return true;
    if (*value == "no") return false;
    throw misuse("'" + key + "=" + *value + "': the value is yes or no");
}

}  // namespace ctl
