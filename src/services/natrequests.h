#pragma once

#include <cstdint>

#include "services/portmap.h"
#include "tk/message.h"

namespace gateway {

/// Requests over the bus for the destination NAT rules of the router's firewall. Each is one synchronous
/// exchange.
/// Errors: the error message of the firewall or of a failed exchange (tk::isError).

/// Creates the rule that forwards traffic for `externalAddress` and the key's port to the mapping's client
/// and port. The reply carries the new rule's object id. The rule vanishes with this program's connection.
/// Byte order: network.
[[nodiscard]] tk::message createNatRule(const Id& id, const PortMap& map, std::uint32_t externalAddress);

/// Gives the rule `map.natId` the target and enabled flag of `map`.
[[nodiscard]] tk::message changeNatRule(const PortMap& map);

/// Removes a rule. A rule that is already gone is no error.
[[nodiscard]] tk::message removeNatRule(std::uint32_t natId);

}  // namespace gateway
