#pragma once

#include <cstdint>

/// The ports where the LAN finds the gateway; the daemon opens them and the firewall guards them.
namespace contract {

constexpr std::uint16_t ssdpPort = 1900;  // UDP
constexpr std::uint16_t httpPort = 2828;  // TCP

}  // namespace contract
