#pragma once

#include <cstdint>
#include <string>

namespace gateway {

/// The value of HOST in searches and adverts: the group, a colon, the port.
std::string ssdpHost();

/// The value of CACHE-CONTROL: how many seconds an advert is valid.
std::string ssdpMaxAge();

/// The URL of the description for clients of one interface.
/// Byte order: network.
std::string ssdpLocation(std::uint32_t address);

}  // namespace gateway
