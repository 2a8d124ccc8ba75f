#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "ctl/session.h"

namespace ctl {

/// A program of the router that is on the bus. A value.
struct RunningProgram {
    std::uint32_t number = 0;
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;
};

/// Nobody waits longer than this to see that something hangs.
/// Units: milliseconds.
constexpr std::uint32_t patience = 3000;

/// The programs on the bus, the router itself first.
/// Errors: none when the router does not know the question; throws Failure when it does not answer.
[[nodiscard]] std::optional<std::vector<RunningProgram>> readPrograms(Session& session);

/// True when a program is among them.
[[nodiscard]] bool isThere(const std::vector<RunningProgram>& programs, std::uint32_t number);

}  // namespace ctl
