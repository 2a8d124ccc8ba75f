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

/// Reads an RTM_NEWLINK or RTM_DELLINK message. Empty for one that describes no interface as a whole: a
/// bridge port, or an event of a wireless driver.
[[nodiscard]] std::optional<Link> parseLink(const nlmsghdr& message);

/// Reads an RTM_NEWADDR or RTM_DELADDR message. Empty for all but IPv4 addresses.
[[nodiscard]] std::optional<LinkAddress> parseAddress(const nlmsghdr& message);

/// A route of the kernel's tables. A value.
struct Route {
    // Of the routes of one destination the kernel takes the one with the lowest metric.
    std::uint32_t table = 0;
    Prefix prefix;
    std::uint8_t service = 0;  // that the packets ask for
    std::uint32_t metric = 0;

    bool leadsSomewhere = false;  // false for one to the router itself, or that excludes
    bool isOwnNetwork = false;    // it came with an address of the interface, and leads to its network
    std::vector<std::uint32_t> interfaces;  // indexes; several with a multipath route
    std::uint32_t nextHop = 0;  // the id of the object that says where it leads; 0: the route does

    /// True when the other one has the same destination.
    bool isRivalOf(const Route& other) const {
        return table == other.table && prefix == other.prefix && service == other.service;
    }
    /// True when it leads, or its nexthop object may lead, to an address beyond the private ranges.
    bool leadsBeyond() const;
};

/// Reads an RTM_NEWROUTE or RTM_DELROUTE message of an IPv4 route. Where the kernel names a nexthop object,
/// it may leave the interfaces out, and what becomes of packets there is not the route's to say.
[[nodiscard]] Route parseRoute(const nlmsghdr& message);

/// Where a nexthop object leads: out of an interface, or wherever the members of a group lead. A blackhole
/// has neither. A value.
struct NextHop {
    std::uint32_t interface = 0;         // index; 0: none
    std::vector<std::uint32_t> members;  // ids
};

/// Reads an RTM_NEWNEXTHOP message.
[[nodiscard]] NextHop parseNextHop(const nlmsghdr& message);

/// The kernel's interfaces, addresses and nexthop objects over rtnetlink: requests that are answered at once.
class RtNetlink final : public Kernel {
public:
    /// Errors: there is no rtnetlink.
    tk::Status open();

    // As every kernel does.
    tk::Result<Link> readLink(std::uint32_t index) override;
    tk::Status setLinkUp(std::uint32_t index, bool up) override;

    /// Adds the indexes of the interfaces that a nexthop object leads out of: none for one that is no more,
    /// and none with a kernel that has no such objects.
    /// Errors: where not all members of a group can be read, those that could be are added.
    tk::Status addInterfacesOf(std::uint32_t nextHop, std::set<std::uint32_t>& out);

    // Read all interfaces, or all IPv4 addresses.
    tk::Result<std::vector<Link>> readLinks();
    tk::Result<std::vector<LinkAddress>> readAddresses();

private:
    tk::Result<NextHop> readNextHop(std::uint32_t id);

    netlink::Socket socket;
};

}  // namespace links
