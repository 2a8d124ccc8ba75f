#pragma once

#include <cstdint>
#include <string>

namespace router {

/// What the kernel holds for one enabled rule: new connections to an address and port go to another one.
/// Byte order: addresses in network order, ports in host order. A value.
struct NatElement {
    std::uint32_t destination = 0;
    std::uint8_t protocol = 0;
    std::uint16_t port = 0;
    std::uint32_t target = 0;
    std::uint16_t targetPort = 0;

    bool operator==(const NatElement&) const = default;
};

/// A rule's destination for people: "tcp 198.51.100.1:80".
[[nodiscard]] std::string destinationText(const NatElement& element);

}  // namespace router
