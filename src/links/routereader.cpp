#include "links/routereader.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <utility>

namespace links {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

void RouteExits::add(const Route& route) {
    if (!route.leadsBeyond()) return;
    if (route.nextHop != 0) {
        nextHops.try_emplace(route.nextHop, route.prefix);
        return;
    }
    for (const std::uint32_t index : route.interfaces) interfaces.try_emplace(index, route.prefix);
}

void RouteExits::addFallback(const Route& route) {
    if (!route.leadsBeyond()) return;
    if (route.nextHop != 0)
        hasFallbackByNextHop = true;
    else
        fallbacks.insert(route.interfaces.begin(), route.interfaces.end());
}

tk::Status RouteReader::open() {
    if (tk::Status opened = socket.open(NETLINK_ROUTE); !opened.isOk()) return opened.prefixed("rtnetlink: ");
    watch.start<RouteReader, &RouteReader::ready>(socket.descriptor(), *this, tk::readable);
    return {};
}

void RouteReader::begin() {
    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header = {sizeof request, RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, socket.nextSequence(), 0};
    request.route.rtm_family = AF_INET;
    exits = {};
    best = {};
    answer = netlink::Answer(request.header.nlmsg_seq, request.header.nlmsg_seq);
    const auto start = Clock::now();
    const tk::Status sent = socket.send(&request, sizeof request);
    spent = Clock::now() - start;
    if (sent.isOk()) return;
    answer.fail(sent);
    finish();
}

void RouteReader::complete() {
    if (!isBusy()) return;
    const auto start = Clock::now();
    answer.complete(socket, netlink::answerMilliseconds, [this](const nlmsghdr& message) { take(message); });
    spent += Clock::now() - start;
    finish();
}

void RouteReader::ready(int, std::uint32_t) {
    // One datagram has hundreds of routes, which take well below 1 ms. After a loss, read all that still waits
    // at once: nothing else may come to wake this up again.
    while (step() && answer.isPartial()) continue;
}

/// Takes one datagram, whereupon the kernel makes the next one. False when there is none.
bool RouteReader::step() {
    const bool wasBusy = isBusy();
    const auto start = Clock::now();
    const bool isTaken = answer.receive(socket, 0, [this](const nlmsghdr& message) { take(message); });
    spent += Clock::now() - start;
    if (wasBusy && !isBusy()) finish();
    return isTaken;
}

void RouteReader::take(const nlmsghdr& message) {
    if (message.nlmsg_type == RTM_NEWROUTE) judge(parseRoute(message));
}

/// The kernel gives the routes of one destination in a row, those with the lowest metric first.
void RouteReader::judge(const Route& route) {
    if (route.isRivalOf(best) && route.metric > best.metric) return exits.addFallback(route);
    best = route;
    exits.add(route);
}

void RouteReader::finish() {
    const tk::Status outcome = answer.outcome();
    if (!outcome.isOk()) return owner.routesUnread(outcome);
    owner.routesRead(std::exchange(exits, {}), !answer.isInterrupted());
}

}  // namespace links
