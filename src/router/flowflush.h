#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "router/flow.h"
#include "router/natkernel.h"
#include "router/netlinksocket.h"
#include "router/staleflows.h"
#include "tk/timer.h"

namespace router {

/// Stands before the kernel's rules, and makes the flows that exist already follow their changes. That never
/// delays a change: the table of flows is read a moment later, once for all changes of a short interval, and
/// in parts that leave the loop time for others.
class FlowFlush final : public NatKernel {
public:
    /// Lifetime: the rules outlive the object.
    explicit FlowFlush(NatKernel& rules) : rules(rules) {}

    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::string& reason);

    [[nodiscard]] bool commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                              std::string& reason) override;

    /// True while flows may still have to go for a change that was made.
    bool isPending() const { return !noted.empty() || isBusy(); }

private:
    void begin();
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void finish();
    void repeat(const std::string& why);
    void removeSome();
    /// True while a pass is under way.
    bool isBusy() const { return dumpSequence != 0 || !sought.empty() || !found.empty(); }
    std::uint32_t restTicks() const;

    NatKernel& rules;
    NetlinkSocket socket;
    tk::Watch watch;
    StaleFlows noted;   // since the last pass began
    StaleFlows sought;  // by the pass that is under way
    std::vector<Flow> found;
    std::uint32_t dumpSequence = 0;  // 0: no pass is under way
    bool canSelect = true;
    bool reported = false;  // of what cannot be removed, once
    int attempts = 0;
    std::chrono::steady_clock::time_point restEnd;
    tk::Timer<FlowFlush, &FlowFlush::begin> delay{*this};
    tk::Timer<FlowFlush, &FlowFlush::removeSome> removal{*this};
};

}  // namespace router
