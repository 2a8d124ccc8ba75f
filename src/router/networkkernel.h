#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace router {

/// Traffic counters of an interface.
struct LinkCounters {
    std::uint64_t receivedPackets = 0;
    std::uint64_t sentPackets = 0;
    std::uint64_t receivedBytes = 0;
    std::uint64_t sentBytes = 0;
};

/// A network interface as the kernel describes it. A value.
struct Link {
    std::uint32_t index = 0;
    std::string name;
    std::string alias;
    std::uint32_t hardwareType = 0;  // ARPHRD_...
    std::uint32_t flags = 0;         // IFF_...
    LinkCounters counters;

    /// True for the interface of the router to itself.
    bool isLoopback() const;
    /// True when it is administratively up.
    bool isUp() const;
    /// True when it can carry traffic now.
    bool isRunning() const;
};

/// An IPv4 address on an interface. Byte order: network. A value.
struct LinkAddress {
    std::uint32_t index = 0;    // of the interface
    std::uint32_t address = 0;  // the router's own, also on a point-to-point link
    std::uint32_t peer = 0;     // the other end on a point-to-point link, else the same
    std::uint8_t prefixLength = 0;
    bool isGlobal = true;  // false for one that has a meaning on its link or host alone

    auto operator<=>(const LinkAddress&) const = default;
};

/// Where the kernel would send a packet.
struct Route {
    /// What becomes of it there.
    enum class Type : std::uint8_t { unicast, local, broadcast, multicast, none };

    Type type = Type::none;
    std::uint8_t prefixLength = 0;          // of the route that matches
    std::vector<std::uint32_t> interfaces;  // indexes; several with a multipath route, none if unknown
    std::uint32_t nextHop = 0;  // the id of the object that says where it leads; 0: the route does

    /// True for the prefix of a default route, also of one that is split in two halves so as to win over
    /// another one.
    static constexpr bool isDefaultPrefix(std::uint8_t length) { return length <= 1; }
    /// True for a default route.
    bool isDefault() const { return type == Type::unicast && isDefaultPrefix(prefixLength); }
};

/// What the services ask of the kernel about interfaces, addresses and routes. Replaced by a fake in tests.
class NetworkKernel {
public:
    virtual ~NetworkKernel() = default;
    /// Reads one interface with its counters. Errors: false, with the kernel's text in `reason`.
    [[nodiscard]] virtual bool readLink(std::uint32_t index, Link& out, std::string& reason) = 0;
    /// Sets an interface up or down. Errors: false, with the kernel's text in `reason`.
    [[nodiscard]] virtual bool setLinkUp(std::uint32_t index, bool up, std::string& reason) = 0;
    /// Looks up where packets to `address` (network order) go. The interfaces of a route that leads somewhere
    /// are empty only where the kernel does not tell them.
    [[nodiscard]] virtual Route routeTo(std::uint32_t address) = 0;
};

}  // namespace router
