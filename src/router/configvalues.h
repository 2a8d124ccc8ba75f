#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "links/prefix.h"
#include "nat/config.h"
#include "tk/account.h"
#include "tk/message.h"

#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

namespace router {

/// Reads the values of a parsed configuration file, and keeps the first fault with its file, line and key.
/// All readers: false for a value that is not what the key wants.
class ConfigValues {
public:
    /// `name` is the file's.
    ConfigValues(std::string name, std::string& reason) : name(std::move(name)), reason(reason) {}

    /// Notes a fault. Always false.
    bool fail(std::string_view key, const toml::node& where, std::string_view what);

    [[nodiscard]] bool read(std::string_view key, const toml::node& value, bool& out);
    /// A number from `lowest` to `highest`.
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::int64_t lowest,
                            std::int64_t highest, std::uint32_t& out);
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::optional<tk::Account>& out);
    /// A list of networks, such as "192.0.2.0/24".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<Prefix>& out);
    /// A list of ports and ranges of them, such as 80 and "1024-65535".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<PortRange>& out);
    /// A list of paths of one or two numbers, such as "20,5".
    [[nodiscard]] bool read(std::string_view key, const toml::node& value, std::vector<tk::Path>& out);
    /// The name of an interface, and a list of them.
    [[nodiscard]] bool readInterface(std::string_view key, const toml::node& value, std::string& out);
    [[nodiscard]] bool readInterfaces(std::string_view key, const toml::node& value,
                                      std::vector<std::string>& out);
    /// A command: a full path, then arguments.
    [[nodiscard]] bool readCommand(std::string_view key, const toml::node& value,
                                   std::vector<std::string>& out);
    /// The name of a systemd service.
    [[nodiscard]] bool readUnit(std::string_view key, const toml::node& value, std::string& out);
    /// A list of the numbers of programs.
    [[nodiscard]] bool readPrograms(std::string_view key, const toml::node& value,
                                    std::vector<std::uint32_t>& out);

private:
    std::string name;
    std::string& reason;
};

}  // namespace router
