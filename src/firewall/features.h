#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "firewall/rulebuilder.h"
#include "netlink/socket.h"

namespace firewall {

/// One thing that the router's table needs of the kernel, and a small table that has it. A value.
struct Feature {
    const char* name;          // for people, with the version that brought it
    std::uint32_t tableFlags;  // of the table
    const char* chainType;     // of its one chain
    std::uint32_t hook;
    void (*fill)(RuleBuilder& rule);  // of the chain's one rule
    std::uint8_t family = nft::ip4;
};

/// What the table needs and a kernel may lack, be it too old or built without.
[[nodiscard]] std::span<const Feature> neededFeatures();

/// The name of the first feature that the kernel does not have, empty when it has them all: each is tried for
/// itself, in a transaction that leaves nothing behind. There must be no table of ours. Those of IPv6 are
/// tried where `withIp6`.
[[nodiscard]] std::string missingFeature(netlink::Socket& socket, std::span<const Feature> features,
                                         bool withIp6);

}  // namespace firewall
