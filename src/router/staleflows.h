#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "router/flow.h"
#include "router/natrule.h"

namespace router {

/// What changed in the rules, and which flows do not agree with it any more. A value.
class StaleFlows {
public:
    /// Notes a change that the kernel has committed.
    void note(std::span<const NatElement> removed, std::span<const NatElement> added);
    bool empty() const { return changes.empty(); }

    /// True when the flow has to go: it follows a rule that is gone or leads elsewhere now, or it began
    /// before its rule and would go past it. What the rules have nothing to do with stays, such as the
    /// router's own connections and those that came in as answers; so does an established TCP connection to
    /// the router itself when its port is mapped later.
    [[nodiscard]] bool contains(const Flow& flow) const;

    /// The narrowest selection that has all flows in it.
    [[nodiscard]] FlowSelection selection() const;

private:
    using Place = std::tuple<std::uint32_t, std::uint8_t, std::uint16_t>;  // destination, protocol, port
    using Target = std::pair<std::uint32_t, std::uint16_t>;
    struct Change {
        std::vector<Target> former;
        std::optional<Target> present;
    };

    std::map<Place, Change> changes;
};

}  // namespace router
