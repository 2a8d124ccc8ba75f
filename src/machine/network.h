#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace machine {

/// A range of IPv4 addresses with a common prefix. A value.
struct Network {
    std::uint32_t address = 0;  // in network order; the bits after the prefix are 0
    unsigned length = 0;        // of the prefix, 0 to 32

    /// True when the address lies in it.
    /// Byte order: network.
    [[nodiscard]] bool contains(std::uint32_t candidate) const;
    /// True when every address of the other network lies in it.
    [[nodiscard]] bool contains(const Network& other) const;
    /// "192.0.2.0/24".
    [[nodiscard]] std::string text() const;

    bool operator==(const Network&) const = default;
};

/// The network of that prefix length around an address.
/// Byte order: network.
[[nodiscard]] Network networkOf(std::uint32_t address, unsigned length);

/// "192.0.2.0/24", "192.0.2.1" (a single address) or "default".
/// Errors: none for any other text.
[[nodiscard]] std::optional<Network> parseNetwork(const std::string& text);

/// Four decimal numbers separated by dots.
/// Byte order: network.
/// Errors: none for any other text.
[[nodiscard]] std::optional<std::uint32_t> parseIPv4(const std::string& text);

/// What an address says of the network that it is in.
enum class Reach {
    everywhere,  // the Internet
    site,        // 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16
    shared,      // 100.64.0.0/10: behind the address translation of a provider
    link,        // 169.254.0.0/16
    reserved,    // documentation, loopback, multicast, broadcast, "this network"
};

/// Byte order: network.
[[nodiscard]] Reach reachOf(std::uint32_t address);

/// "private", "shared" or "link-local": what an address of an uplink is that the Internet does not reach. Null
/// for any other reach; an uplink with an address for documentation is part of somebody's experiment.
[[nodiscard]] const char* reachWord(Reach reach);

/// The first of an uplink's addresses when there is such a word for each, so that something in front of this
/// router translates addresses once more. None when the Internet reaches one: the others are for management.
/// Byte order: network.
[[nodiscard]] std::optional<std::uint32_t> innerAddressOf(const std::vector<std::uint32_t>& addresses);

/// True when every address of the network lies in ranges other than those of the Internet.
[[nodiscard]] bool isPrivate(const Network& network);

}  // namespace machine
