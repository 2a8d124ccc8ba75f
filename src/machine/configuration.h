#pragma once

#include <cstdint>
#include <string>

namespace machine {

/// What routerd reads unless it is told otherwise.
constexpr const char* usualConfiguration = "/tesk/etc/router.toml";

/// The configuration file that a command line of routerd names; the usual one if it names none.
/// `commandLine`: its arguments, with a zero after each, as the kernel tells them.
[[nodiscard]] std::string configurationIn(const std::string& commandLine);

/// The configuration file that the routerd with that process id reads, as a full path if the process may be
/// looked at; the usual one if it cannot be told.
[[nodiscard]] std::string configurationOf(std::uint32_t pid);

}  // namespace machine
