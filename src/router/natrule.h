#pragma once

#include <cstdint>
#include <string>

#include "tk/message.h"

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

/// A destination NAT rule. A value.
struct NatRule {
    std::uint32_t id = 0;
    std::uint32_t owner = 0;  // who made a dynamic rule: the first element of its path
    bool dynamic = false;
    bool disabled = false;
    NatElement element;

    bool operator==(const NatRule&) const = default;
};

/// Reads a rule from the fields of a request. With `isNew` everything that makes up a rule must be there;
/// else `rule` keeps what the request does not name, and its id, owner and kind in any case. Errors: false
/// for whatever does not fit one entry of the kernel's map; `reason` says what, and `rule` is as before.
[[nodiscard]] bool readRule(const tk::message& request, bool isNew, NatRule& rule, std::string& reason);

/// The rule as a record: the fields of the request that would make it, and its id.
[[nodiscard]] tk::message recordOf(const NatRule& rule);

/// An address in dotted form. Byte order: network.
[[nodiscard]] std::string addressText(std::uint32_t address);

/// A rule's destination for people: "tcp 198.51.100.1:80".
[[nodiscard]] std::string destinationText(const NatElement& element);

}  // namespace router
