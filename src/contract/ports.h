#pragma once

#include <cstdint>

/// Where the LAN finds the gateway: what the daemon opens and the firewall guards.
namespace contract {

constexpr std::uint16_t ssdpPort = 1900;  // UDP
constexpr std::uint16_t httpPort = 2828;  // TCP

/// Where searches and adverts go.
/// Protocol: UPnP Device Architecture 1.0, 1.
constexpr const char* ssdpGroup = "239.255.255.250";

}  // namespace contract
