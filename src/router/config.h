#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firewall/objects.h"
#include "hub/access.h"
#include "hub/processes.h"
#include "links/linkswitch.h"
#include "links/zones.h"
#include "nat/policy.h"
#include "tk/account.h"
#include "tk/status.h"

namespace router {

/// What the configuration file says. A value.
struct Config {
    std::optional<tk::Account> user;  // whom the router runs as; none: as whoever started it
    std::vector<hub::ProgramConfig> programs;
    std::vector<hub::UserRights> users;
    links::LanConfig lan;
    std::vector<links::InterfaceConfig> interfaces;
    nat::Config nat;
    firewall::GuardConfig guard;

    bool operator==(const Config&) const = default;
};

/// Gives the programs that name no user the router's own, for whoever starts them still is root. A unit names
/// its user itself.
void runAsRouter(Config& config);

/// Lets the user `name`, where the system has it, be the program of that number: a program that root starts
/// may become a user of its own name. A number for which the configuration names somebody stays theirs.
void nameUsualUser(Config& config, std::uint32_t program, const std::string& name);

/// Reads the configuration text. `name` is the file's, for the texts of errors.
/// Errors: for anything that is not TOML, unknown or out of range, and for a user that the system does not know;
/// the reason names file, line and key.
tk::Result<Config> parseConfig(const std::string& text, const std::string& name);

/// Reads the configuration file at `path`. One that is absent is an empty configuration when `mayBeAbsent`.
/// Errors: as for parseConfig(), and for a file that others than root and whoever runs the router could have
/// written: everybody, a group but root's, or its owner.
tk::Result<Config> readConfig(const std::string& path, bool mayBeAbsent);

}  // namespace router
