#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "links/kernel.h"
#include "links/prefix.h"
#include "netlink/socket.h"
#include "tk/status.h"

namespace links {

/// Reads an RTM_NEWLINK or RTM_DELLINK message. Empty when it does not describe a whole interface, but a
/// bridge port or an event of a wireless driver.
[[nodiscard]] std::optional<Link> parseLink(const nlmsghdr& message);

/// Reads an RTM_NEWADDR or RTM_DELADDR message. Empty for all but IPv4 addresses.
[[nodiscard]] std::optional<LinkAddress> parseAddress(const nlmsghdr& message);

/// A route of the kernel's tables. A value.
struct Route {
    // The first three are the destination: of its routes the kernel takes the one with the lowest metric.
    std::uint32_t table = 0;
    Prefix prefix;
    std::uint8_t service = 0;  // the packets' type of service
    std::uint32_t metric = 0;

    // False when it leads to the router itself, or excludes its destination.
    bool leadsSomewhere = false;
    // True when it came with an address of the interface, and leads to that address's network.
    bool isOwnNetwork = false;
    std::vector<std::uint32_t> interfaces;  // indexes; several for a multipath route
    // The id of the object that says where the route leads; 0: the route itself does.
    std::uint32_t nextHop = 0;

    /// True when the other route has the same destination.
    bool isRivalOf(const Route& other) const {
        return table == other.table && prefix == other.prefix && service == other.service;
    }
    /// True when the route or its nexthop object may lead to an address beyond the private ranges.
    bool leadsBeyond() const;
};

/// Reads an RTM_NEWROUTE or RTM_DELROUTE message of an IPv4 route. If the kernel names a nexthop object, it
/// may leave out the interfaces, and the object decides what becomes of packets.
[[nodiscard]] Route parseRoute(const nlmsghdr& message);

/// Where a nexthop object leads: out of an interface or, for a group, where its members lead. A blackhole has
/// neither. A value.
struct NextHop {
    std::uint32_t interface = 0;         // index; 0: none
    std::vector<std::uint32_t> members;  // ids
};

/// Reads an RTM_NEWNEXTHOP message.
[[nodiscard]] NextHop parseNextHop(const nlmsghdr& message);

/// The kernel's interfaces, addresses and nexthop objects over rtnetlink. The kernel answers at once.
class RtNetlink final : public Kernel {
public:
    /// Opens the socket.
    /// Errors: there is no rtnetlink.
    tk::Status open();

    /// As declared by Kernel.
    tk::Result<Link> readLink(std::uint32_t index) override;
    tk::Status setLinkUp(std::uint32_t index, bool up) override;

    /// Adds the indexes of the interfaces that a nexthop object leads out of. An object that no longer exists
    /// has none, and so has a kernel without such objects.
    /// Errors: when not all members of a group can be read, those that could be are still added.
    tk::Status addInterfacesOf(std::uint32_t nextHop, std::set<std::uint32_t>& out);

    /// Reads all interfaces, or all IPv4 addresses.
    tk::Result<std::vector<Link>> readLinks();
    tk::Result<std::vector<LinkAddress>> readAddresses();

private:
    tk::Result<NextHop> readNextHop(std::uint32_t id);

    netlink::Socket socket;
};

}  // namespace links
