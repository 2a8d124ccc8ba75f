#pragma once

#include <compare>
#include <cstdint>

#include "tk/message.h"

/// The destination NAT rules, at {20, 5}.
namespace contract {

// A has... flag is true when the fields of its group are given.
namespace rulefield {
constexpr std::uint32_t dstPortFirst = 9;       // u32
constexpr std::uint32_t dstPortLast = 10;       // u32
constexpr std::uint32_t protocol = 11;          // u32: the IP protocol's number
constexpr std::uint32_t chain = 39;             // string
constexpr std::uint32_t action = 40;            // u32
constexpr std::uint32_t dstAddressFirst = 52;   // be32
constexpr std::uint32_t dstAddressLast = 53;    // be32
constexpr std::uint32_t hasProtocol = 404;      // bool
constexpr std::uint32_t hasDstPort = 406;       // bool
constexpr std::uint32_t hasDstAddress = 419;    // bool
constexpr std::uint32_t toAddressFirst = 1000;  // be32
constexpr std::uint32_t toAddressLast = 1001;   // be32
constexpr std::uint32_t toPortFirst = 1002;     // u32
constexpr std::uint32_t toPortLast = 1003;      // u32
constexpr std::uint32_t hasToAddress = 1006;    // bool
constexpr std::uint32_t hasToPort = 1007;       // bool
constexpr std::uint32_t packets = 1100;         // u64
constexpr std::uint32_t bytes = 1101;           // u64
constexpr std::uint32_t owner = 1102;           // u32, in records of dynamic rules
}  // namespace rulefield
constexpr const char* dstnatChain = "dstnat";
constexpr std::uint32_t destinationNat = 22;  // the only action
// Command with the fields of a new rule: answers whether a program would get it, and changes nothing.
constexpr std::uint32_t testRule = 2;
constexpr std::uint32_t withTraffic = 256;  // option of a get: adds the traffic

/// What a rule matches: new connections to a port of an address. A value.
/// Byte order: the address in network order, the port in host order.
struct NatKey {
    std::uint32_t destination = 0;
    std::uint8_t protocol = 0;  // the IP protocol's number
    std::uint16_t port = 0;

    auto operator<=>(const NatKey&) const = default;
};

/// Where a rule leads. A value.
/// Byte order: the address in network order, the port in host order.
struct NatTarget {
    std::uint32_t address = 0;
    std::uint16_t port = 0;

    auto operator<=>(const NatTarget&) const = default;
};

/// A destination NAT rule as it is sent. A value.
struct NatRule {
    std::uint32_t id = 0;  // 0: none yet
    bool dynamic = false;
    bool disabled = false;
    NatKey key;
    NatTarget target;
    std::uint32_t owner = 0;  // of a dynamic rule: the number of the program or client that made it

    bool operator==(const NatRule&) const = default;

    /// The rule as a record; without an id and an owner, the fields of the request that makes it.
    tk::message toMessage() const;
    /// The fields of the request that sets the target and the disabled flag of the rule with this id.
    tk::message toChange() const;
    /// The fields of a testRule request: the fewest that make up a rule.
    tk::message toQuestion() const;

    /// Reads a record. Absent fields keep their defaults; a number too large for its member is cut to its low
    /// bits.
    static NatRule fromMessage(const tk::message& record);
    /// The rule with the key, the target and the disabled flag that a request names.
    NatRule changedBy(const tk::message& request) const;
};

/// What has passed by a rule, in both directions, since it took effect. A value.
struct NatTraffic {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;

    bool operator==(const NatTraffic&) const = default;

    /// Adds the traffic to a rule's record.
    void addTo(tk::message& record) const;
    /// The traffic in a rule's record; 0 when it has none.
    static NatTraffic fromMessage(const tk::message& record);
};

}  // namespace contract
