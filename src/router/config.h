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
    std::optional<tk::Account> user;  // the router's; none: that of whoever started it
    std::vector<hub::ProgramConfig> programs;
    std::vector<hub::UserRights> runners;  // users who run these programs, and so may be them
    std::vector<hub::UserRights> users;    // all other users
    links::LanConfig lan;
    std::vector<links::InterfaceConfig> interfaces;
    nat::Config nat;
    firewall::GuardConfig guard;

    bool operator==(const Config&) const = default;
};

/// Every command that is started for the router: for the programs, and for the interfaces.
[[nodiscard]] std::vector<hub::ProgramConfig> commandsIn(const Config& config);

/// The names of the sections in which two configurations differ, except "router", in the order of the
/// documentation. That of the programs includes who runs them.
[[nodiscard]] std::vector<std::string> changedSections(const Config& before, const Config& after);

/// Gives the router's user to each program that names none, because the process that starts them is still
/// root. What a service manager runs has a user already.
void runAsRouter(Config& config);

/// Fits the configuration to a router that was not started by root but by the user `self`: it starts programs
/// as that user, who may register them, and as nobody else.
/// Errors: for a configuration that names another user for the router or for a program.
tk::Status runAsStarted(Config& config, uid_t self);

/// A program's number, and the name of the user that it may become when root starts it.
struct UsualUser {
    std::uint32_t program = 0;
    std::string name;
};

/// Lets each of the users that the system has register its program. Leaves out programs for which the
/// configuration names somebody.
/// Errors: as for tk::findUsers(); nothing has changed.
tk::Status nameUsualUsers(Config& config, const std::vector<UsualUser>& usual);

/// Reads the configuration text. `name` is the name of the file, for the texts of errors.
/// Errors: for text that is not TOML, for anything unknown or out of range, and for a user that the system
/// does not know. The reason names the file, line and key.
tk::Result<Config> parseConfig(const std::string& text, const std::string& name);

/// Reads the configuration file at `path`.
/// `owner`: who may write the file, besides root.
/// Errors: as for parseConfig(). Also for a file that could have been written by anybody else: everybody, a
/// group other than root's, or another owner. The code is an errno value when the file cannot be opened.
tk::Result<Config> readConfig(const std::string& path, uid_t owner);

}  // namespace router
