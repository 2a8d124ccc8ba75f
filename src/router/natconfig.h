#pragma once

#include <cstdint>
#include <vector>

namespace router {

/// An IPv4 network. Byte order: host. A value.
struct Prefix {
    std::uint32_t network = 0;
    std::uint32_t mask = 0;

    bool contains(std::uint32_t hostOrderAddress) const { return (hostOrderAddress & mask) == network; }
    bool operator==(const Prefix&) const = default;
};

/// Ports from the first to the last. A value.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;

    bool contains(std::uint16_t port) const { return port >= first && port <= last; }
    bool operator==(const PortRange&) const = default;
};

/// What the configuration says of the rules that may be made. A value.
struct NatConfig {
    bool checksTargets = true;
    std::vector<Prefix> internalPrefixes;  // hosts in them are inside, wherever they are routed
    std::vector<PortRange> externalPorts;  // that may be mapped; empty: all
    std::vector<PortRange> internalPorts;  // that a rule may lead to; empty: all
    std::uint32_t limitPerTarget = 0;      // rules that lead to one address; 0: no limit
    std::uint32_t limit = 0;               // rules at all; 0: no limit
    std::vector<PortRange> routerPorts{};  // that no program may map

    bool operator==(const NatConfig&) const = default;
};

}  // namespace router
