#include "router/uplinks.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <utility>

#include "router/rtmessages.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int receiveBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 256;
constexpr std::uint32_t delayTicks = 1;    // 10 ms: a route that moves is a series of notifications
constexpr std::uint32_t retryTicks = 100;  // 1 s

/// True when default routes may be others now. The kernel does not tell of the routes that go with an
/// interface or an address.
bool mayConcern(const nlmsghdr& message) {
    switch (message.nlmsg_type) {
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            return parseRoute(message).isDefault();
        default:
            return true;
    }
}

}  // namespace

bool Uplinks::start(std::string& reason) {
    if (!events.open(NETLINK_ROUTE, RTMGRP_IPV4_ROUTE | RTMGRP_LINK | RTMGRP_IPV4_IFADDR)) {
        reason = "rtnetlink: " + tk::errorText();
        return false;
    }
    events.setBuffers(receiveBytes, receiveBytes);
    watch.start<Uplinks, &Uplinks::ready>(events.descriptor(), *this, tk::readable);
    read();
    return true;
}

void Uplinks::ready(int, std::uint32_t) {
    bool concerns = false;
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = events.receive(
            0, [&concerns](const nlmsghdr& message) { concerns = concerns || mayConcern(message); });
        if (result == NetlinkSocket::Received::nothing) break;
        concerns = concerns || result != NetlinkSocket::Received::datagram;  // what was lost may concern it
        if (result == NetlinkSocket::Received::failed) break;
    }
    if (concerns && !std::exchange(isDue, true)) delay.arm(delayTicks);
}

void Uplinks::read() {
    isDue = false;
    std::set<std::uint32_t> indexes;
    std::string reason;
    if (kernel.readUplinks(indexes, reason)) return table.setUplinks(indexes);
    tk::log("guard: routes cannot be read: ", reason);
    isDue = true;
    delay.arm(retryTicks);
}

}  // namespace router
