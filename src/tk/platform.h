#pragma once

#include <cstdint>
#include <string>

namespace tk {

/// How long the router has been running.
/// Units: seconds.
std::uint32_t getUptime();

/// The version text of the operating system: the kernel's release, for example "6.1.0-18-amd64", no blank
/// behind it.
std::string getOSVersion();

}  // namespace tk
