#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "router/flow.h"
#include "router/natrule.h"
#include "router/netlinksocket.h"
#include "router/otherdnat.h"

namespace router {

/// The flows that a router which was killed left behind: its table went with it, but where something else
/// translates addresses too, the kernel goes on with the flows that the table began.
class LeftoverFlows {
public:
    /// True when there is a rule of this kind now.
    using IsInForce = std::function<bool(const NatElement&)>;

    /// Ends the flows whose destination was translated as no present rule does it, be it one of the router's
    /// addresses now or not: it may come back. Where others may have done that, it leaves them, with one log
    /// line; and those of a zone in any case. The first flow that cannot be removed is logged.
    void end(const IsInForce& isInForce, const OtherDnat& others);

private:
    [[nodiscard]] bool read(const IsInForce& isInForce);
    void remove();
    void readAnswers();
    void report(const std::string& why);

    NetlinkSocket socket;
    std::vector<Flow> flows;
    bool reported = false;
};

}  // namespace router
