#pragma once

#include <cstdint>
#include <string>

namespace tk {

/// How long the router has been running.
/// Units: seconds.
std::uint32_t getUptime();

/// The operating system's version: the kernel's release, such as "6.1.0-18-amd64", without a trailing blank.
std::string getOSVersion();

}  // namespace tk
