#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "links/zones.h"
#include "nat/config.h"
#include "nat/rule.h"

namespace router {

/// Decides which rules may be made: above all none that would turn the router into a proxy or open the router
/// itself, and what the configuration says besides.
class NatPolicy {
public:
    /// Lifetime: the zones outlive the policy.
    explicit NatPolicy(const Zones& zones, NatConfig config = {}) : zones(zones), config(std::move(config)) {}

    /// True when the rule may be enabled; else `reason` says why not.
    [[nodiscard]] bool allows(const NatElement& element, std::string& reason) const;

    /// True when a program may ask for a rule with this destination: an address that the router holds
    /// outside. Not `isNew`: a rule may keep an address that the router has lost meanwhile, for nothing
    /// matches it then. Else `reason` says why not.
    [[nodiscard]] bool allowsDestination(const NatElement& element, bool isNew, std::string& reason) const;

    /// True when there may be one rule more: `total` counts all the others, `ofTarget` those of them that
    /// lead to the same address. Else `reason` says which limit is reached.
    [[nodiscard]] bool hasRoom(std::size_t total, std::size_t ofTarget, const NatElement& element,
                               std::string& reason) const;

private:
    [[nodiscard]] bool allowsPorts(const NatElement& element, std::string& reason) const;
    [[nodiscard]] std::string faultOfTarget(std::uint32_t address) const;

    const Zones& zones;
    NatConfig config;
};

}  // namespace router
