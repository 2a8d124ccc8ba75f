#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "links/zones.h"
#include "nat/config.h"
#include "nat/listeners.h"
#include "nat/rule.h"

namespace router {

/// Decides which ports are the router's own, and not to be had by a program: those that the configuration
/// names, and those where a service of the router can be reached from outside.
class RouterPorts {
public:
    /// Lifetime: zones and listeners outlive the object.
    RouterPorts(const Zones& zones, Listeners& listeners, std::vector<PortRange> configured = {})
        : zones(zones), listeners(listeners), configured(std::move(configured)) {}

    /// True when a program may have the rule's port; else `reason` says why not.
    [[nodiscard]] bool areFreeFor(const NatElement& element, std::string& reason) const;

private:
    const Zones& zones;
    Listeners& listeners;
    std::vector<PortRange> configured;
};

}  // namespace router
