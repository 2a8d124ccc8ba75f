#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "firewall/sets.h"
#include "links/zones.h"
#include "tk/status.h"

namespace nat {

/// Ports from the first to the last. A value.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;

    /// True when the port is in the range.
    bool contains(std::uint16_t port) const { return port >= first && port <= last; }
    bool operator==(const PortRange&) const = default;
};

/// What the configuration says about the rules that may be made. A value.
struct Config {
    bool checksTargets = true;
    std::vector<PortRange> externalPorts;  // that may be mapped; empty: all
    std::vector<PortRange> internalPorts;  // that a rule may lead to; empty: all
    std::uint32_t limitPerTarget = 0;      // rules that lead to one address; 0: no limit
    std::uint32_t limit = 0;               // rules in total; 0: no limit
    std::vector<PortRange> routerPorts{};  // that no program may map

    bool operator==(const Config&) const = default;
};

/// Decides which rules may be made. No rule may turn the router into a proxy or open the router itself. The
/// configuration may forbid more.
class Policy {
public:
    /// Lifetime: the zones outlive the policy.
    explicit Policy(const links::Zones& zones, Config config = {})
        : zones(zones), config(std::move(config)) {}

    /// Follows this configuration from now on. Rules that are there stay.
    void setConfig(Config configured) { config = std::move(configured); }

    /// Success when the rule may be enabled.
    /// Errors: tk::error::refused.
    tk::Status allows(const firewall::Element& element) const;

    /// Success when a program may ask for a rule with this destination: an address that the router holds
    /// outside.
    /// `isNew`: false for a rule that exists. It may keep an address that the router has lost, because
    /// nothing matches such a rule.
    /// Byte order: network.
    /// Errors: tk::error::refused.
    tk::Status allowsDestination(std::uint32_t address, bool isNew) const;

    /// Success when there is room for one more rule. `total` counts all the others, `ofTarget` those that
    /// lead to the same address.
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
