#pragma once

#include <cstdint>
#include <string>

namespace gateway {

/// Where searches and adverts go.
/// Protocol: UPnP Device Architecture 1.0, 1.
constexpr const char* ssdpGroup = "239.255.255.250";

/// The value of HOST in searches and adverts: the group, a colon, the port.
std::string ssdpHost();

/// The value of CACHE-CONTROL: for how many seconds an advert holds.
std::string ssdpMaxAge();

/// The address of the description for clients of one interface.
/// Byte order: network.
std::string ssdpLocation(std::uint32_t address);

}  // namespace gateway
