#include "links/routereader.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <utility>

#include "tk/log.h"

namespace router {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int datagramsPerTurn = 8;       // of some dozens of routes each, a fraction of a millisecond
constexpr int answerMilliseconds = 5000;  // the kernel answers at once; a bound for what cannot happen

/// Why the kernel ended its list before the end, empty where it did not.
std::string faultOf(const nlmsghdr& done) {
    if (mnl_nlmsg_get_payload_len(&done) < sizeof(int)) return {};
    const int status = *static_cast<const int*>(mnl_nlmsg_get_payload(&done));
    return status < 0 ? netlinkFailure(-status).text : std::string();
}

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

bool RouteReader::open(std::string& reason) {
    if (!socket.open(NETLINK_ROUTE)) {
        reason = "rtnetlink: " + tk::errorText();
        return false;
    }
    watch.start<RouteReader, &RouteReader::ready>(socket.descriptor(), *this, tk::readable);
    return true;
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
    isInterrupted = false;
    sequence = request.header.nlmsg_seq;
    const auto start = Clock::now();
    const bool isSent = socket.send(&request, sizeof request);
    spent = Clock::now() - start;
    if (!isSent) fail(tk::errorText());
}

void RouteReader::complete() {
    while (isBusy())
        if (!step(answerMilliseconds) && isBusy()) fail("the kernel does not answer");
}

void RouteReader::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn && step(0); ++i) continue;
}

/// Takes one datagram, for which the kernel makes the next one. False when there is none.
bool RouteReader::step(int milliseconds) {
    const auto start = Clock::now();
    const auto result = socket.receive(milliseconds, [this](const nlmsghdr& message) { take(message); });
    spent += Clock::now() - start;
    if (result == NetlinkSocket::Received::datagram) return true;
    if (result != NetlinkSocket::Received::nothing && isBusy()) fail(tk::errorText());
    return false;
}

void RouteReader::take(const nlmsghdr& message) {
    if (!isBusy() || message.nlmsg_seq != sequence) return;  // of a reading that has failed
    isInterrupted = isInterrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message.nlmsg_type == NLMSG_ERROR) return fail(netlinkResultOf(message).text);
    if (message.nlmsg_type == NLMSG_DONE) return finish(faultOf(message));
    if (message.nlmsg_type == RTM_NEWROUTE) judge(parseRoute(message));
}

/// The kernel tells the routes of one destination one behind the other, those of the lowest metric first.
void RouteReader::judge(const Route& route) {
    if (route.isRivalOf(best) && route.metric > best.metric) return exits.addFallback(route);
    best = route;
    exits.add(route);
}

void RouteReader::finish(const std::string& fault) {
    if (!fault.empty()) return fail(fault);
    sequence = 0;
    owner.routesRead(std::exchange(exits, {}), !isInterrupted);
}

void RouteReader::fail(const std::string& reason) {
    sequence = 0;
    owner.routesUnread(reason);
}

}  // namespace router
