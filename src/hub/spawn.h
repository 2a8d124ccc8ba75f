#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tk/account.h"

namespace router {

/// A program that the router can start.
struct ProgramConfig {
    std::uint32_t number = 0;
    std::vector<std::string> command;  // the program's path, then its arguments
    bool startsWithRouter = false;
    std::optional<tk::Account> user = {};  // whom it runs as; none: as the router itself
    std::string unit = {};                 // the systemd service that it is, in place of a command

    bool operator==(const ProgramConfig&) const = default;
};

/// The command that starts a program: its own, or the one that asks systemd for its unit.
[[nodiscard]] std::vector<std::string> commandOf(const ProgramConfig& program);

/// Starts a program of the configuration as its user, in a process group of its own, with no signal blocked
/// or ignored. Errors: -1, with errno set to why it could not become that user, or the command not be run.
[[nodiscard]] pid_t spawn(const ProgramConfig& program);

}  // namespace router
