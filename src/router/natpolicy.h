#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "router/addresses.h"
#include "router/natconfig.h"
#include "router/natrule.h"
#include "router/networkkernel.h"

namespace router {

/// Decides which rules may be made: above all none that would turn the router into a proxy or open the router
/// itself, and what the configuration says besides.
class NatPolicy {
public:
    /// Lifetime: both outlive the policy.
    NatPolicy(NetworkKernel& kernel, const Addresses& addresses, NatConfig config = {})
        : kernel(kernel), addresses(addresses), config(std::move(config)) {}

    /// True when the rule may be enabled; else `reason` says why not.
    [[nodiscard]] bool allows(const NatElement& element, std::string& reason) const;

    /// True when there may be one rule more: `total` counts all the others, `ofTarget` those of them that
    /// lead to the same address. Else `reason` says which limit is reached.
    [[nodiscard]] bool hasRoom(std::size_t total, std::size_t ofTarget, const NatElement& element,
                               std::string& reason) const;

private:
    [[nodiscard]] bool allowsPorts(const NatElement& element, std::string& reason) const;
    [[nodiscard]] bool allowsTarget(const NatElement& element, std::string& reason) const;
    [[nodiscard]] bool allowsRoute(const NatElement& element, const Route& route, std::string& reason) const;

    NetworkKernel& kernel;
    const Addresses& addresses;
    NatConfig config;
};

}  // namespace router
