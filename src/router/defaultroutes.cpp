#include "router/defaultroutes.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <utility>

#include "router/rtmessages.h"
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

void DefaultExits::add(const Route& route) {
    if (route.nextHop != 0)
        nextHops.insert(route.nextHop);
    else if (route.isDefault())
        interfaces.insert(route.interfaces.begin(), route.interfaces.end());
}

bool DefaultRoutes::open(std::string& reason) {
    if (!socket.open(NETLINK_ROUTE)) {
        reason = "rtnetlink: " + tk::errorText();
        return false;
    }
    watch.start<DefaultRoutes, &DefaultRoutes::ready>(socket.descriptor(), *this, tk::readable);
    return true;
}

void DefaultRoutes::begin() {
    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header = {sizeof request, RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, socket.nextSequence(), 0};
    request.route.rtm_family = AF_INET;
    exits = {};
    isInterrupted = false;
    sequence = request.header.nlmsg_seq;
    const auto start = Clock::now();
    const bool isSent = socket.send(&request, sizeof request);
    spent = Clock::now() - start;
    if (!isSent) fail(tk::errorText());
}

void DefaultRoutes::complete() {
    while (isBusy())
        if (!step(answerMilliseconds) && isBusy()) fail("the kernel does not answer");
}

void DefaultRoutes::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn && step(0); ++i) continue;
}

/// Takes one datagram, for which the kernel makes the next one. False when there is none.
bool DefaultRoutes::step(int milliseconds) {
    const auto start = Clock::now();
    const auto result = socket.receive(milliseconds, [this](const nlmsghdr& message) { take(message); });
    spent += Clock::now() - start;
    if (result == NetlinkSocket::Received::datagram) return true;
    if (result != NetlinkSocket::Received::nothing && isBusy()) fail(tk::errorText());
    return false;
}

void DefaultRoutes::take(const nlmsghdr& message) {
    if (!isBusy() || message.nlmsg_seq != sequence) return;  // of a reading that has failed
    isInterrupted = isInterrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message.nlmsg_type == NLMSG_ERROR) return fail(netlinkResultOf(message).text);
    if (message.nlmsg_type == NLMSG_DONE) return finish(faultOf(message));
    if (isOfDefaultRoute(message)) exits.add(parseRoute(message));
}

void DefaultRoutes::finish(const std::string& fault) {
    if (!fault.empty()) return fail(fault);
    sequence = 0;
    owner.defaultRoutesRead(std::exchange(exits, {}), !isInterrupted);
}

void DefaultRoutes::fail(const std::string& reason) {
    sequence = 0;
    owner.defaultRoutesUnread(reason);
}

}  // namespace router
