#include "router/staleflows.h"

#include <algorithm>

namespace router {

namespace {

bool leadsTo(const Flow& flow, const std::pair<std::uint32_t, std::uint16_t>& target) {
    return flow.target == target.first && flow.targetPort == target.second;
}

/// True for an established connection that leads where it was sent to: the router's own.
bool isOwn(const Flow& flow) {
    return flow.isEstablished && leadsTo(flow, {flow.destination, flow.port});
}

}  // namespace

void StaleFlows::note(std::span<const NatElement> removed, std::span<const NatElement> added) {
    for (const NatElement& element : removed) {
        Change& change = changes[{element.destination, element.protocol, element.port}];
        const Target target{element.target, element.targetPort};
        if (std::find(change.former.begin(), change.former.end(), target) == change.former.end())
            change.former.push_back(target);
        change.present.reset();
    }
    for (const NatElement& element : added)
        changes[{element.destination, element.protocol, element.port}].present = {element.target,
                                                                                  element.targetPort};
}

bool StaleFlows::contains(const Flow& flow) const {
    const auto found = changes.find({flow.destination, flow.protocol, flow.port});
    if (found == changes.end()) return false;
    const Change& change = found->second;
    if (change.present && leadsTo(flow, *change.present)) return false;
    const bool followedARule = std::any_of(change.former.begin(), change.former.end(),
                                           [&flow](const Target& target) { return leadsTo(flow, target); });
    return followedARule || (change.present && !isOwn(flow));
}

FlowSelection StaleFlows::selection() const {
    if (changes.empty()) return {};
    const auto& [destination, protocol, port] = changes.begin()->first;
    FlowSelection selection{destination, protocol, port};
    for (const auto& [place, change] : changes) {
        if (std::get<0>(place) != destination) return {};
        if (std::get<1>(place) != protocol) selection.protocol = 0;
        if (std::get<2>(place) != port) selection.port = 0;
    }
    return selection;
}

}  // namespace router
