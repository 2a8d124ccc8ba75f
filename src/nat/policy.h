#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "firewall/objects.h"
#include "links/zones.h"
#include "tk/status.h"

namespace nat {

/// Ports from the first to the last. A value.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;

    bool contains(std::uint16_t port) const { return port >= first && port <= last; }
    bool operator==(const PortRange&) const = default;
};

/// What the configuration says of the rules that may be made. A value.
struct Config {
    bool checksTargets = true;
    std::vector<PortRange> externalPorts;  // that may be mapped; empty: all
    std::vector<PortRange> internalPorts;  // that a rule may lead to; empty: all
    std::uint32_t limitPerTarget = 0;      // rules that lead to one address; 0: no limit
    std::uint32_t limit = 0;               // rules at all; 0: no limit
    std::vector<PortRange> routerPorts{};  // that no program may map

    bool operator==(const Config&) const = default;
};

/// Decides which rules may be made: above all none that would turn the router into a proxy or open the router
/// itself, and what the configuration says besides.
class Policy {
public:
    /// Lifetime: the zones outlive the policy.
    explicit Policy(const links::Zones& zones, Config config = {})
        : zones(zones), config(std::move(config)) {}

    /// Whether the rule may be enabled.
    /// Errors: tk::error::refused.
    tk::Status allows(const firewall::Element& element) const;

    /// Whether a program may ask for a rule with this destination: an address that the router holds outside.
    /// Not `isNew`: a rule may keep an address that the router has lost meanwhile, for nothing matches it
    /// then.
    /// Byte order: network.
    /// Errors: tk::error::refused.
    tk::Status allowsDestination(std::uint32_t address, bool isNew) const;

    /// Whether there may be one rule more: `total` counts all the others, `ofTarget` those of them that lead
    /// to the same address.
    /// Byte order: network.
    /// Errors: tk::error::busy; the reason says which limit is reached.
    tk::Status hasRoom(std::size_t total, std::size_t ofTarget, std::uint32_t target) const;

private:
    tk::Status allowsPorts(const firewall::Element& element) const;
    [[nodiscard]] std::string faultOfTarget(std::uint32_t address) const;

    const links::Zones& zones;
    Config config;
};

}  // namespace nat
