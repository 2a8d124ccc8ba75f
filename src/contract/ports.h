#pragma once

#include <cstdint>

/// The ports on which the LAN finds the gateway, which the daemon opens and the firewall guards.
namespace contract {

constexpr std::uint16_t ssdpPort = 1900;  // UDP
constexpr std::uint16_t httpPort = 2828;  // TCP

}  // namespace contract
