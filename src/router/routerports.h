#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "router/addresses.h"
#include "router/listeners.h"
#include "router/natconfig.h"
#include "router/natrule.h"

namespace router {

/// Decides which ports are the router's own, and not to be had by a program: those that the configuration
/// names, and those where a service of the router can be reached from outside.
class RouterPorts {
public:
    /// Lifetime: addresses and listeners outlive the object.
    RouterPorts(const Addresses& addresses, Listeners& listeners, std::vector<PortRange> configured = {})
        : addresses(addresses), listeners(listeners), configured(std::move(configured)) {}

    /// True when a program may have the rule's port; else `reason` says why not.
    [[nodiscard]] bool areFreeFor(const NatElement& element, std::string& reason) const;

private:
    const Addresses& addresses;
    Listeners& listeners;
    std::vector<PortRange> configured;
};

}  // namespace router
