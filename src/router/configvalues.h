#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "links/prefix.h"
#include "nat/policy.h"
#include "tk/account.h"
#include "tk/message.h"
#include "tk/status.h"

#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

namespace router {

/// Reads the values of a parsed configuration file, and keeps the last fault with its file, line and key.
/// Errors: every reader returns false and notes a fault when the value does not suit the key.
class ConfigValues {
public:
    /// `name` is the name of the file.
    explicit ConfigValues(std::string name) : name(std::move(name)) {}

    /// The last fault; success when there is none.
    const tk::Status& status() const { return fault; }
    /// Notes a fault. Always returns false.
    bool fail(std::string_view key, const toml::node& where, std::string_view what);

    /// True or false.
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, bool& out);
    /// A number from `lowest` to `highest`.
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::int64_t lowest,
                            std::int64_t highest, std::uint32_t& out);
    /// The name of a user of the system.
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::optional<tk::Account>& out);
    /// A list of networks, such as "192.0.2.0/24".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<links::Prefix>& out);
    /// A list of ports and ranges of them, such as 80 and "1024-65535".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<nat::PortRange>& out);
    /// A list of paths of one or two numbers, such as "20,5".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<tk::Path>& out);
    /// The name of an interface.
    [[nodiscard]] bool readInterface(std::string_view key, const toml::node& value, std::string& out);
    /// A list of names of interfaces.
    [[nodiscard]] bool readInterfaces(std::string_view key, const toml::node& value,
                                      std::vector<std::string>& out);
    /// A command: a full path, then arguments.
    [[nodiscard]] bool readCommand(std::string_view key, const toml::node& value,
                                   std::vector<std::string>& out);
    /// The name of a systemd service.
    [[nodiscard]] bool readUnit(std::string_view key, const toml::node& value, std::string& out);
    /// A list of program numbers.
    [[nodiscard]] bool readPrograms(std::string_view key, const toml::node& value,
                                    std::vector<std::uint32_t>& out);

private:
    std::string name;
    tk::Status fault;
};

}  // namespace router
