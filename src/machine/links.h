#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "machine/network.h"
#include "tk/status.h"

namespace machine {

/// One network interface. A value.
struct Link {
    std::string name;
    std::uint32_t index = 0;
    bool isUp = false;        // by the administrator
    bool hasCarrier = false;  // the other end is there
    std::string type;         // of its frames: "ether", "ppp", "loopback", "none"...
    std::string kind;    // of a virtual one: "bridge", "vlan", "bond", "veth", "wireguard"...; else empty
    std::string master;  // the bridge or bond that it is a member of; else empty
    std::string lower;   // the interface that it stands on (the link of a VLAN); else empty

    bool operator==(const Link&) const = default;
};

/// One IPv4 address of an interface. A value.
struct Address {
    std::string interface;
    std::uint32_t address = 0;  // in network order
    Network network;            // that is directly connected: of the other end on a point-to-point link
    std::optional<std::uint32_t> peer;  // the other end of a point-to-point link, in network order
    std::string scope;                  // "global", "link", "host"
    bool isLeased = false;              // true when it ends unless it is renewed, as DHCP gives it

    bool operator==(const Address&) const = default;
};

/// One IPv4 route. A route of several hops is several of these. A value.
struct Route {
    Network destination;
    std::string type;                      // "unicast", "local", "broadcast", "blackhole", "unreachable"...
    std::string table;                     // its name or number
    std::string device;                    // empty for a route that leads nowhere
    std::optional<std::uint32_t> gateway;  // in network order
    std::uint32_t metric = 0;              // the lower one wins

    /// True for a route to everywhere that leads somewhere.
    bool isDefault() const { return type == "unicast" && destination == Network{} && !device.empty(); }

    bool operator==(const Route&) const = default;
};

/// The machine's network. A value.
struct Links {
    std::vector<Link> links;
    std::vector<Address> addresses;
    std::vector<Route> routes;                 // of all tables
    std::vector<std::string> pppoeInterfaces;  // that sessions of PPP over Ethernet use

    /// The link with a name; null when there is none.
    /// Lifetime: as long as `links` stays as it is.
    [[nodiscard]] const Link* find(const std::string& name) const;

    bool operator==(const Links&) const = default;
};

/// The bridge or bond that stands for an interface, as packets of its members come by it, or the interface
/// itself.
/// Lifetime: that of the links.
[[nodiscard]] const Link& ownerOf(const Links& links, const Link& link);

// Read what the tool ip prints about links with "-j -d" and about addresses and routes with "-4 -j", and what
// the kernel tells in /proc/net/pppoe.
// Errors: when the text is not of that form.

[[nodiscard]] tk::Result<std::vector<Link>> parseLinks(const std::string& text);
[[nodiscard]] tk::Result<std::vector<Address>> parseAddresses(const std::string& text);
[[nodiscard]] tk::Result<std::vector<Route>> parseRoutes(const std::string& text);
[[nodiscard]] std::vector<std::string> parsePPPoE(const std::string& text);

/// Where the kernel says whether it forwards packets.
constexpr const char* forwardingFile = "/proc/sys/net/ipv4/ip_forward";

/// True unless the kernel says that it forwards nothing.
[[nodiscard]] bool isForwarding(const std::string& file = forwardingFile);

/// Asks the kernel.
/// Errors: when the tool ip is absent or fails.
[[nodiscard]] tk::Result<Links> readLinks();

}  // namespace machine
