#pragma once

#include <cstdint>

#include "services/portmap.h"
#include "tk/message.h"

namespace gateway {

/// The destination NAT rules of the router's firewall, as requests over the bus. Each is one synchronous
/// exchange.
/// Errors: the error message of the firewall, or of a failed exchange (tk::isError).

/// Creates the rule that sends what comes to `externalAddress` (network order) and the key's port on to the
/// mapping's client and port. The reply carries the new rule's object id. The rule vanishes with this
/// program's connection.
[[nodiscard]] tk::message createNatRule(const Id& id, const PortMap& map, std::uint32_t externalAddress);

/// Gives the rule `map.natId` the target and the enabled flag of `map`.
[[nodiscard]] tk::message changeNatRule(const PortMap& map);

/// Removes a rule. One that is gone already is no error.
[[nodiscard]] tk::message removeNatRule(std::uint32_t natId);

}  // namespace gateway
