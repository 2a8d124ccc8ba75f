#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace links {

/// The length of an IPv4 address.
constexpr std::uint32_t addressBits = 32;

/// An IPv4 network. A value.
/// Byte order: host.
struct Prefix {
    std::uint32_t network = 0;
    std::uint32_t mask = 0;

    /// True when an address lies in the network.
    bool contains(std::uint32_t hostOrderAddress) const { return (hostOrderAddress & mask) == network; }
    /// The highest address.
    std::uint32_t last() const { return network | ~mask; }
    bool operator==(const Prefix&) const = default;
};

/// The network of `length` bits, at most 32, that an address lies in.
/// Byte order: host.
[[nodiscard]] Prefix prefixOf(std::uint32_t hostOrderAddress, std::uint32_t length);

/// The number of bits that all addresses of a network share.
[[nodiscard]] std::uint32_t lengthOf(const Prefix& prefix);

/// An address in dotted form.
/// Byte order: network.
[[nodiscard]] std::string addressText(std::uint32_t address);

/// A network as text, such as "192.0.2.0/24".
[[nodiscard]] std::string prefixText(const Prefix& prefix);

/// True when a network has an address that a host outside its owner's networks may have: one that is neither
/// private (RFC 1918, 100.64.0.0/10, 169.254.0.0/16, the documentation ranges) nor loopback, multicast or
/// the broadcast address.
[[nodiscard]] bool isBeyondPrivateRanges(const Prefix& prefix);

/// IPv4 addresses from the first to the last. A value.
/// Byte order: host.
struct AddressRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;

    auto operator<=>(const AddressRange&) const = default;
};

/// A network that is known to be inside or outside. A value.
struct SidedNetwork {
    Prefix prefix;
    bool isInside = false;
};

/// The inside addresses, as ascending ranges that neither overlap nor touch. The smallest network around an
/// address decides; if two of the same size differ, or there is none, the address is outside.
[[nodiscard]] std::vector<AddressRange> insideRanges(std::vector<SidedNetwork> networks);

/// True when an address lies in one of the ranges.
/// Byte order: host.
[[nodiscard]] bool contains(const std::vector<AddressRange>& ranges, std::uint32_t hostOrderAddress);

}  // namespace links
