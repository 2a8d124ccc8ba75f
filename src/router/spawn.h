#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "router/config.h"

namespace router {

/// The command that starts a program: its own, or the one that asks systemd for its unit.
[[nodiscard]] std::vector<std::string> commandOf(const ProgramConfig& program);

/// Starts a program of the configuration as its user, in a process group of its own, with no signal blocked
/// or ignored. Errors: -1, with errno set to why it could not become that user, or the command not be run.
[[nodiscard]] pid_t spawn(const ProgramConfig& program);

}  // namespace router
