#pragma once

#include <sys/types.h>

#include "router/config.h"

namespace router {

/// Starts a program of the configuration as its user, in a process group of its own, with no signal blocked
/// or ignored. Errors: -1, with errno set to why it could not become that user, or the command not be run.
[[nodiscard]] pid_t spawn(const ProgramConfig& program);

}  // namespace router
