#include "links/publicroutes.h"

#include <libmnl/libmnl.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <set>

#include "links/rtnetlink.h"
#include "tk/log.h"

namespace links {

namespace {

constexpr std::uint32_t delayTicks = 1;    // 10 ms: moving a route takes several messages
constexpr std::uint32_t retryTicks = 100;  // 1 s
// Reading all routes of a large router takes some hundred milliseconds. So readings keep a distance, and
// together take only a small share of the time.
constexpr int distanceFactor = 10;

constexpr std::uint32_t groupOf(unsigned number) {
    return 1U << (number - 1);
}

}  // namespace

// A kernel without nexthop objects leaves out the group that it does not know.
const std::uint32_t PublicRoutes::groups = groupOf(RTNLGRP_IPV4_ROUTE) | groupOf(RTNLGRP_LINK) |
                                           groupOf(RTNLGRP_IPV4_IFADDR) | groupOf(RTNLGRP_NEXTHOP);

tk::Status PublicRoutes::start() {
    if (tk::Status opened = reader.open(); !opened.isOk()) return opened;
    reader.begin();
    reader.complete();
    isStarted = fault.isOk();
    return fault;
}

void PublicRoutes::heard(const nlmsghdr& message) {
    switch (message.nlmsg_type) {
        case RTM_NEWROUTE:
            return routeComes(parseRoute(message));
        case RTM_NEWNEXTHOP:
            return nextHopComes(message);
        case RTM_DELLINK:
            known.interfaces.erase(parseLink(message).value_or(Link()).index);
            return somethingGoes();
        case RTM_NEWADDR:
            return;  // removes no route
        default:
            // The kernel does not tell of all routes that go with something else.
            return somethingGoes();
    }
}

void PublicRoutes::routeComes(const Route& route) {
    if (!route.leadsBeyond() || isKnown(route)) return;
    if (route.metric != 0) return readAgain();
    coming.add(route);
    RouteExits news;
    news.add(route);
    if (!tell(news)) next.call(retryTicks);
}

bool PublicRoutes::isKnown(const Route& route) const {
    if (route.nextHop != 0) return known.nextHops.contains(route.nextHop);
    return std::all_of(route.interfaces.begin(), route.interfaces.end(),
                       [this](std::uint32_t index) { return known.interfaces.contains(index); });
}

/// An object may lead elsewhere now, and any routes by it, too.
void PublicRoutes::nextHopComes(const nlmsghdr& message) {
    if (known.nextHops.empty()) return;
    const NextHop hop = parseNextHop(message);
    const bool isOut = hop.interface != 0 && known.interfaces.contains(hop.interface);
    if (!hop.members.empty() || (hop.interface != 0 && !isOut)) readAgain();
}

/// What goes matters only if a worse route may take its place.
void PublicRoutes::somethingGoes() {
    const bool isNews =
        std::any_of(known.fallbacks.begin(), known.fallbacks.end(),
                    [this](std::uint32_t index) { return !known.interfaces.contains(index); });
    if (isNews || known.hasFallbackByNextHop) readAgain();
}

void PublicRoutes::readAgain() {
    if (reader.isBusy())
        isOutdated = true;
    else
        next.call(delayTicks);
}

void PublicRoutes::read() {
    if (reader.isBusy()) return readAgain();
    isOutdated = false;
    coming = {};
    reader.begin();
}

void PublicRoutes::keepDistance() {
    next.rest(reader.cost() * distanceFactor);
}

void PublicRoutes::routesRead(const RouteExits& exits, bool isComplete) {
    keepDistance();
    // Forget objects that no route leads to any more: they might lead inside one day.
    known.nextHops = coming.nextHops;
    known.fallbacks = exits.fallbacks;
    known.hasFallbackByNextHop = exits.hasFallbackByNextHop;
    if (!tell(exits)) return next.call(retryTicks);
    if (isOutdated || !isComplete) next.call(delayTicks);
}

void PublicRoutes::routesUnread(const tk::Status& why) {
    keepDistance();
    fail(why.prefixed("routes cannot be read: "));
    next.call(retryTicks);
}

/// At the start the caller of start() tells why.
void PublicRoutes::fail(const tk::Status& why) {
    fault = why;
    if (isStarted) tk::log("inside and outside: ", why.reason());
}

/// Errors: false when it is unknown where some routes lead; the zones then know of all others.
bool PublicRoutes::tell(const RouteExits& exits) {
    fault = {};
    std::map<std::uint32_t, Prefix> out = exits.interfaces;
    for (const auto& [id, destination] : exits.nextHops) {
        std::set<std::uint32_t> indexes;
        if (const tk::Status read = kernel.addInterfacesOf(id, indexes); !read.isOk())
            fail(read.prefixed("nexthop " + std::to_string(id) + " cannot be read: "));
        for (const std::uint32_t index : indexes) out.try_emplace(index, destination);
        known.nextHops.try_emplace(id, destination);
    }
    known.interfaces.insert(out.begin(), out.end());
    zones.addExits(out);
    return fault.isOk();
}

}  // namespace links
