#pragma once

#include <cstdint>
#include <vector>

namespace router {

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
    std::vector<PortRange> externalPorts;  // that may be mapped; empty: all
    std::vector<PortRange> internalPorts;  // that a rule may lead to; empty: all
    std::uint32_t limitPerTarget = 0;      // rules that lead to one address; 0: no limit
    std::uint32_t limit = 0;               // rules at all; 0: no limit
    std::vector<PortRange> routerPorts{};  // that no program may map

    bool operator==(const NatConfig&) const = default;
};

}  // namespace router
