#include "links/publicroutes.h"

#include <libmnl/libmnl.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <set>
#include <utility>

#include "links/rtnetlink.h"
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

}  // namespace

bool PublicRoutes::start(std::string& reason) {
    if (const tk::Status opened = events.open(NETLINK_ROUTE, groups); !opened.isOk()) {
        reason = "rtnetlink: " + opened.reason();
        return false;
    }
    events.setBuffers(receiveBytes, receiveBytes);
    if (!reader.open(reason)) return false;
    watch.start<PublicRoutes, &PublicRoutes::ready>(events.descriptor(), *this, tk::readable);
    reader.begin();
    reader.complete();
    isStarted = fault.empty();
    reason = fault;
    return isStarted;
}

void PublicRoutes::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = events.receive(0, [this](const nlmsghdr& message) { take(message); });
        if (result == netlink::Socket::Received::nothing) return;
        if (result != netlink::Socket::Received::datagram) note();  // what was lost may concern it
        if (result == netlink::Socket::Received::failed) return;
    }
}

void PublicRoutes::take(const nlmsghdr& message) {
    switch (message.nlmsg_type) {
        case RTM_NEWROUTE:
            return routeComes(parseRoute(message));
        case RTM_NEWNEXTHOP:
            return nextHopComes(message);
        case RTM_DELLINK:
            known.interfaces.erase(parseLink(message).value_or(Link()).index);
            return somethingGoes();
        case RTM_NEWADDR:
            return;  // takes no route away
        default:
            return somethingGoes();  // the kernel does not tell of all routes that go with something else
    }
}

void PublicRoutes::routeComes(const Route& route) {
    if (!route.leadsBeyond() || isKnown(route)) return;
    if (route.metric != 0) return note();
    coming.add(route);
    RouteExits news;
    news.add(route);
    if (!tell(news)) retryLater();
}

bool PublicRoutes::isKnown(const Route& route) const {
    if (route.nextHop != 0) return known.nextHops.contains(route.nextHop);
    return std::all_of(route.interfaces.begin(), route.interfaces.end(),
                       [this](std::uint32_t index) { return known.interfaces.contains(index); });
}

/// An object may lead elsewhere now, and routes with it, where there still are any.
void PublicRoutes::nextHopComes(const nlmsghdr& message) {
    if (known.nextHops.empty()) return;
    const NextHop hop = parseNextHop(message);
    const bool isOut = hop.interface != 0 && known.interfaces.contains(hop.interface);
    if (!hop.members.empty() || (hop.interface != 0 && !isOut)) note();
}

/// What goes matters only where a worse route may take its place.
void PublicRoutes::somethingGoes() {
    const bool isNews =
        std::any_of(known.fallbacks.begin(), known.fallbacks.end(),
                    [this](std::uint32_t index) { return !known.interfaces.contains(index); });
    if (isNews || known.hasFallbackByNextHop) note();
}

/// Has everything read again, when the present reading is over.
void PublicRoutes::note() {
    if (!std::exchange(isDue, true) && !reader.isBusy()) schedule(delayTicks);
}

/// Begins the next reading after `ticks`, and not before the distance to the last one is kept.
void PublicRoutes::schedule(std::uint32_t ticks) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(restEnd - std::chrono::steady_clock::now());
    const auto restTicks =
        static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 0) / tk::tickMilliseconds);
    delay.arm(std::max(ticks, restTicks));
}

void PublicRoutes::retryLater() {
    isDue = true;
    schedule(retryTicks);
}

void PublicRoutes::read() {
    if (reader.isBusy()) return;  // what is due comes behind it
    isDue = false;
    coming = {};
    reader.begin();
}

void PublicRoutes::keepDistance() {
    restEnd = std::chrono::steady_clock::now() + reader.cost() * distanceFactor;
}

void PublicRoutes::routesRead(const RouteExits& exits, bool isComplete) {
    keepDistance();
    isDue = isDue || !isComplete;
    // Objects to which no route leads any more are forgotten, else they might lead inside one day.
    known.nextHops = coming.nextHops;
    known.fallbacks = exits.fallbacks;
    known.hasFallbackByNextHop = exits.hasFallbackByNextHop;
    if (!tell(exits)) return retryLater();
    if (isDue) schedule(delayTicks);
}

void PublicRoutes::routesUnread(const std::string& reason) {
    keepDistance();
    fail("routes cannot be read: " + reason);
    retryLater();
}

/// At the start it is the caller of start() that tells why.
void PublicRoutes::fail(const std::string& why) {
    fault = why;
    if (isStarted) tk::log("inside and outside: ", why);
}

/// Errors: false when it is not known where some routes lead; the zones know of all others then.
bool PublicRoutes::tell(const RouteExits& exits) {
    fault.clear();
    std::map<std::uint32_t, Prefix> out = exits.interfaces;
    for (const auto& [id, destination] : exits.nextHops) {
        std::set<std::uint32_t> indexes;
        std::string reason;
        if (!kernel.addInterfacesOf(id, indexes, reason))
            fail("nexthop " + std::to_string(id) + " cannot be read: " + reason);
        for (const std::uint32_t index : indexes) out.try_emplace(index, destination);
        known.nextHops.try_emplace(id, destination);
    }
    known.interfaces.insert(out.begin(), out.end());
    zones.addExits(out);
    return fault.empty();
}

}  // namespace router
