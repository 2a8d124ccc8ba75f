#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "firewall/rulebuilder.h"
#include "netlink/socket.h"

namespace firewall {

/// What the router's table needs only sometimes. A value.
struct Extras {
    bool ip6 = false;                // the guard is for IPv6, too
    bool limitsConnections = false;  // of each source
};

/// Something that the router's table needs from the kernel, with a small table to try it. A value.
struct Feature {
    const char* name = nullptr;       // for people, with the kernel version that introduced it
    std::uint32_t tableFlags = 0;     // of the table
    const char* chainType = nullptr;  // of its one chain
    std::uint32_t hook = 0;
    void (*fill)(RuleBuilder& rule) = nullptr;  // of the chain's one rule
    std::uint8_t family = nft::ip4;
    bool Extras::*onlyFor = nullptr;  // unless it is always needed
};

/// What the table needs and a kernel may lack, because it is too old or was built without it.
[[nodiscard]] std::span<const Feature> neededFeatures();

/// The name of the first feature that the kernel lacks; none when it has them all. Each one is tried on its
/// own, in a transaction that leaves nothing behind. Our table must not exist yet.
[[nodiscard]] std::optional<std::string> missingFeature(netlink::Socket& socket,
                                                        std::span<const Feature> features,
                                                        const Extras& extras);

}  // namespace firewall
