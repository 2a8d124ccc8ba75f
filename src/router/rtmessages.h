#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "router/networkkernel.h"

namespace router {

/// Reads an RTM_NEWLINK or RTM_DELLINK message. Empty for one that describes no interface as a whole: a
/// bridge port, or an event of a wireless driver.
[[nodiscard]] std::optional<Link> parseLink(const nlmsghdr& message);

/// Reads an RTM_NEWADDR or RTM_DELADDR message. Empty for all but IPv4 addresses.
[[nodiscard]] std::optional<LinkAddress> parseAddress(const nlmsghdr& message);

/// Reads an RTM_NEWROUTE or RTM_DELROUTE message. Where the kernel names a nexthop object, it may leave the
/// interfaces out.
[[nodiscard]] Route parseRoute(const nlmsghdr& message);

/// True when such a message is of a default route, whatever becomes of packets there. Looks at no more than
/// the header, for there may be very many.
[[nodiscard]] bool isOfDefaultRoute(const nlmsghdr& message);

/// Where a nexthop object leads: out of an interface, or wherever the members of a group lead. A blackhole
/// has neither. A value.
struct NextHop {
    std::uint32_t interface = 0;         // index; 0: none
    std::vector<std::uint32_t> members;  // ids
};

/// Reads an RTM_NEWNEXTHOP message.
[[nodiscard]] NextHop parseNextHop(const nlmsghdr& message);

}  // namespace router
