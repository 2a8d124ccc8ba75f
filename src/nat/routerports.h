#pragma once

#include <utility>
#include <vector>

#include "links/zones.h"
#include "nat/listeners.h"
#include "nat/policy.h"
#include "tk/status.h"

namespace nat {

/// Decides which ports are the router's own, so that no program gets them: the ports that the configuration
/// names, and those on which a service of the router can be reached from outside.
class RouterPorts {
public:
    /// Lifetime: zones and listeners outlive the object.
    RouterPorts(const links::Zones& zones, Listeners& listeners, std::vector<PortRange> configured = {})
        : zones(zones), listeners(listeners), configured(std::move(configured)) {}

    /// From now on the configuration names these ports. Rules that are there stay.
    void setConfigured(std::vector<PortRange> ports) { configured = std::move(ports); }

    /// Success when a program may have a rule with this key.
    /// Errors: tk::error::refused.
    tk::Status areFreeFor(const NatKey& key) const;

private:
    const links::Zones& zones;
    Listeners& listeners;
    std::vector<PortRange> configured;
};

}  // namespace nat
