#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// KEY=VALUE arguments, such as those of "tkctl upnp set enabled=yes".
class KeyValues {
public:
    /// Errors: throws Failure (misuse) for an argument without '=', and for a key that is not in `known` or
    /// is given twice.
    KeyValues(const std::vector<std::string>& arguments, std::initializer_list<std::string_view> known);

    /// True when no argument was given.
    bool empty() const { return values.empty(); }

    /// The value of a key.
    /// Errors: none when the key was not given.
    [[nodiscard]] std::optional<std::string> text(const std::string& key) const;

    /// The same for a value that is yes or no; true for yes.
    /// Errors: throws Failure (misuse) for any other text.
    [[nodiscard]] std::optional<bool> flag(const std::string& key) const;

private:
    std::map<std::string, std::string> values;
};

}  // namespace ctl
