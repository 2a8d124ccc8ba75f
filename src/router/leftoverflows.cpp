#include "router/leftoverflows.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <utility>

#include "tk/log.h"

namespace router {

namespace {

constexpr int bufferBytes = 1024 * 1024;
constexpr std::size_t removalsPerDatagram = 512;

/// Whoever keeps flows in zones has rules for them; they are not taken for the table's.
bool isLeftOver(const Flow& flow, const LeftoverFlows::IsInForce& isInForce) {
    return flow.isTranslated && !flow.isOfZone &&
           !isInForce({flow.destination, flow.protocol, flow.port, flow.target, flow.targetPort});
}

}  // namespace

void LeftoverFlows::end(const IsInForce& isInForce, const OtherDnat& others) {
    if (!read(isInForce) || flows.empty()) return;
    if (others.mayBe())
        return tk::log("nat: ", flows.size(),
                       " translated flows are not of a present rule, but may be of another table");
    remove();
}

bool LeftoverFlows::read(const IsInForce& isInForce) {
    if (!socket.open(NETLINK_NETFILTER)) {
        tk::log("nat: conntrack: ", tk::errorText());
        return false;
    }
    socket.setBuffers(bufferBytes, bufferBytes);
    std::array<char, flowRequestBytes> buffer;
    const NetlinkResult result = socket.dump(
        *putFlowDump(buffer.data(), {}), [this] { flows.clear(); },
        [&](const nlmsghdr& message) {
            auto flow = parseFlow(message);
            if (flow && isLeftOver(*flow, isInForce)) flows.push_back(std::move(*flow));
        });
    if (!result.ok()) tk::log("nat: the table of flows cannot be read: ", result.text);
    return result.ok();
}

void LeftoverFlows::remove() {
    std::span<const Flow> rest(flows);
    while (!rest.empty()) {
        const auto part = rest.first(std::min(rest.size(), removalsPerDatagram));
        rest = rest.subspan(part.size());
        std::vector<char> requests;
        for (const Flow& flow : part) appendFlowRemoval(requests, flow, socket.nextSequence());
        if (!socket.send(requests.data(), requests.size())) return report(tk::errorText());
        readAnswers();
    }
}

/// The kernel has handled what was sent, and answered only what it could not do.
void LeftoverFlows::readAnswers() {
    const auto take = [this](const nlmsghdr& message) {
        if (message.nlmsg_type != NLMSG_ERROR) return;
        const NetlinkResult result = netlinkResultOf(message);
        if (!result.ok() && result.error != ENOENT) report(result.text);  // ENOENT: it has ended by itself
    };
    for (;;) switch (socket.receive(0, take)) {
            case NetlinkSocket::Received::datagram:
                break;
            case NetlinkSocket::Received::nothing:
                return;
            case NetlinkSocket::Received::lost:
            case NetlinkSocket::Received::failed:
                return report(tk::errorText());
        }
}

void LeftoverFlows::report(const std::string& why) {
    if (!std::exchange(reported, true)) tk::log("nat: flows cannot be removed: ", why);
}

}  // namespace router
