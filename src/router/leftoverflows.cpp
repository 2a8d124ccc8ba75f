#include "router/leftoverflows.h"

#include <algorithm>
#include <array>
#include <utility>

#include "tk/log.h"

namespace router {

namespace {

constexpr int bufferBytes = 1024 * 1024;
constexpr std::size_t removalsPerDatagram = 512;

bool isLeftOver(const Flow& flow, const LeftoverFlows::IsInForce& isInForce) {
    return flow.isTranslated &&
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
        if (!socket.send(requests.data(), requests.size()))
            return tk::log("nat: flows cannot be removed: ", tk::errorText());
    }
}

}  // namespace router
