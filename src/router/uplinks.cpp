#include "router/uplinks.h"

#include <libmnl/libmnl.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <set>
#include <utility>

#include "router/rtmessages.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int receiveBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 256;
constexpr std::uint32_t delayTicks = 1;    // 10 ms: a route that moves is a series of notifications
constexpr std::uint32_t retryTicks = 100;  // 1 s
// All routes of a large router are some hundred milliseconds' work. So readings keep a distance, and together
// take a small share of the time only.
constexpr int distanceFactor = 10;

constexpr std::uint32_t groupOf(unsigned number) {
    return 1U << (number - 1);
}
// A kernel without nexthop objects leaves out the group that it does not know.
constexpr std::uint32_t groups = groupOf(RTNLGRP_IPV4_ROUTE) | groupOf(RTNLGRP_LINK) |
                                 groupOf(RTNLGRP_IPV4_IFADDR) | groupOf(RTNLGRP_NEXTHOP);

void add(DefaultExits& all, const DefaultExits& more) {
    all.interfaces.insert(more.interfaces.begin(), more.interfaces.end());
    all.nextHops.insert(more.nextHops.begin(), more.nextHops.end());
}

}  // namespace

bool Uplinks::start(std::string& reason) {
    if (!events.open(NETLINK_ROUTE, groups)) {
        reason = "rtnetlink: " + tk::errorText();
        return false;
    }
    events.setBuffers(receiveBytes, receiveBytes);
    if (!routes.open(reason)) return false;
    watch.start<Uplinks, &Uplinks::ready>(events.descriptor(), *this, tk::readable);
    routes.begin();
    routes.complete();
    isStarted = fault.empty();
    reason = fault;
    return isStarted;
}

void Uplinks::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = events.receive(0, [this](const nlmsghdr& message) { take(message); });
        if (result == NetlinkSocket::Received::nothing) break;
        if (result != NetlinkSocket::Received::datagram) note();  // what was lost may concern it
        if (result == NetlinkSocket::Received::failed) break;
    }
    if (std::exchange(isNews, false) && !tell()) retryLater();
}

void Uplinks::take(const nlmsghdr& message) {
    switch (message.nlmsg_type) {
        case RTM_NEWROUTE:
            if (isOfDefaultRoute(message)) hear(parseRoute(message));
            return;
        case RTM_DELROUTE:
            if (isOfDefaultRoute(message)) note();
            return;
        case RTM_NEWNEXTHOP:
            isNews = isNews || !known.nextHops.empty();
            return;
        case RTM_NEWADDR:
            return;  // takes no route away
        default:
            return note();  // the kernel does not tell of the routes that go with an interface or an address
    }
}

void Uplinks::hear(const Route& route) {
    heard.add(route);
    known.add(route);
    isNews = true;
    note();  // it may have taken another one's place
}

/// Has everything read again, when the present reading is over.
void Uplinks::note() {
    if (!std::exchange(isDue, true) && !routes.isBusy()) schedule(delayTicks);
}

/// Begins the next reading after `ticks`, and not before the distance to the last one is kept.
void Uplinks::schedule(std::uint32_t ticks) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(restEnd - std::chrono::steady_clock::now());
    const auto restTicks =
        static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 0) / tk::tickMilliseconds);
    delay.arm(std::max(ticks, restTicks));
}

void Uplinks::retryLater() {
    isDue = true;
    schedule(retryTicks);
}

void Uplinks::read() {
    if (routes.isBusy()) return;  // what is due comes behind it
    isDue = false;
    heard = {};
    routes.begin();
}

void Uplinks::keepDistance() {
    restEnd = std::chrono::steady_clock::now() + routes.cost() * distanceFactor;
}

void Uplinks::defaultRoutesRead(const DefaultExits& exits, bool isComplete) {
    keepDistance();
    isDue = isDue || !isComplete;
    if (isComplete) known = std::exchange(heard, {});
    add(known, exits);
    if (!tell()) return retryLater();
    if (isDue) schedule(delayTicks);
}

void Uplinks::defaultRoutesUnread(const std::string& reason) {
    keepDistance();
    fail("routes cannot be read: " + reason);
    retryLater();
}

/// At the start it is the caller of start() that tells why.
void Uplinks::fail(const std::string& why) {
    fault = why;
    if (isStarted) tk::log("guard: ", why);
}

/// Errors: false when it is not known where some routes lead; the guard keeps what it had then, beside what
/// is known.
bool Uplinks::tell() {
    fault.clear();
    std::set<std::uint32_t> indexes = known.interfaces;
    std::string reason;
    for (const std::uint32_t id : known.nextHops)
        if (!kernel.addInterfacesOf(id, indexes, reason))
            fail("nexthop " + std::to_string(id) + " cannot be read: " + reason);
    if (!fault.empty()) indexes.insert(told.begin(), told.end());
    table.setUplinks(indexes);
    told = std::move(indexes);
    return fault.empty();
}

}  // namespace router
