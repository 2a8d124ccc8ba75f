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
#include "tk/toml.h"

namespace router {

/// Reads the values of a parsed configuration file.
/// Errors: the reason names the file, the line and the key, and says what the key wants.
class ConfigValues {
public:
    /// `name` is the name of the file.
    explicit ConfigValues(std::string name) : name(std::move(name)) {}

    /// What is wrong at a place in the file.
    tk::Status fault(std::string_view key, const toml::node& where, std::string_view what) const;

    /// True or false.
    tk::Result<bool> flag(std::string_view key, const toml::node& value) const;
    /// A number from `lowest` to `highest`.
    tk::Result<std::uint32_t> number(std::string_view key, const toml::node& value, std::uint32_t lowest,
                                     std::uint32_t highest) const;
    /// The name of a user of the system.
    tk::Result<tk::Account> account(std::string_view key, const toml::node& value) const;
    /// A list of networks, such as "192.0.2.0/24".
    tk::Result<std::vector<links::Prefix>> networks(std::string_view key, const toml::node& value) const;
    /// A list of ports and ranges of them, such as 80 and "1024-65535".
    tk::Result<std::vector<nat::PortRange>> ports(std::string_view key, const toml::node& value) const;
    /// A list of paths of one or two numbers, such as "20,5".
    tk::Result<std::vector<tk::Path>> paths(std::string_view key, const toml::node& value) const;
    /// The name of an interface, and a list of them.
    tk::Result<std::string> interface(std::string_view key, const toml::node& value) const;
    tk::Result<std::vector<std::string>> interfaces(std::string_view key, const toml::node& value) const;
    /// A command: a full path, then arguments.
    tk::Result<std::vector<std::string>> command(std::string_view key, const toml::node& value) const;
    /// The name of a systemd service.
    tk::Result<std::string> unit(std::string_view key, const toml::node& value) const;
    /// The full path of a file.
    tk::Result<std::string> file(std::string_view key, const toml::node& value) const;
    /// The number of a program, and a list of them.
    tk::Result<std::uint32_t> program(std::string_view key, const toml::node& value) const;
    tk::Result<std::vector<std::uint32_t>> programs(std::string_view key, const toml::node& value) const;

private:
    std::string name;
};

}  // namespace router
