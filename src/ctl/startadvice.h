#pragma once

#include <cstdint>
#include <string>

#include "ctl/failure.h"

namespace ctl {

/// The line of the shell that starts a program of the router where there is no systemd: the one that came with
/// this program.
/// `words`, if any, are its arguments.
[[nodiscard]] std::string startLine(const std::string& program, const std::string& words = {});

/// How to start a program of the router: with systemd where that runs.
[[nodiscard]] std::string startAdvice(const std::string& program);

/// How to start a program again that hangs.
[[nodiscard]] std::string restartAdvice(const std::string& program);

/// Why the bus cannot be reached, and what to do.
/// Units: `error` is an errno value.
[[nodiscard]] Unreachable unreachableBus(const std::string& socketPath, std::uint32_t error);

}  // namespace ctl
