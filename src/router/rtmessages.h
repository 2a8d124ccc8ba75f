#pragma once

#include <linux/netlink.h>

#include <optional>

#include "router/networkkernel.h"

namespace router {

/// Reads an RTM_NEWLINK or RTM_DELLINK message. Empty for one that describes no interface as a whole: a
/// bridge port, or an event of a wireless driver.
[[nodiscard]] std::optional<Link> parseLink(const nlmsghdr& message);

/// Reads an RTM_NEWADDR or RTM_DELADDR message. Empty for all but IPv4 addresses of global scope.
[[nodiscard]] std::optional<LinkAddress> parseAddress(const nlmsghdr& message);

/// Reads an RTM_NEWROUTE message, the answer to a look-up.
[[nodiscard]] Route parseRoute(const nlmsghdr& message);

}  // namespace router
