#pragma once

#include <linux/netlink.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

#include "contract/natrules.h"
#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace firewall {

using contract::NatKey;

/// The two ends of a flow, as its first packet named them. A value.
/// Byte order: the address in network order, the port in host order.
struct FlowTuple {
    NatKey key;  // where it was sent to
    std::uint32_t source = 0;
    std::uint16_t sourcePort = 0;

    auto operator<=>(const FlowTuple&) const = default;
};

/// Reads the beginning of an IPv4 packet. Empty unless it is TCP or UDP, and for a packet that is cut off.
[[nodiscard]] std::optional<FlowTuple> parseFlow(std::span<const char> packet);

/// Removes single flows from the kernel's table of connections: those whose packets the router's table shows
/// in the packet log. The flow's next packet then goes where the rules lead now. The table limits how many
/// packets it shows each second.
class FlowLog {
public:
    /// Starts listening.
    /// Lifetime: the loop outlives the object.
    tk::Status open();

private:
    tk::Status configure();
    [[nodiscard]] bool removes();
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void removeShown();

    netlink::Socket socket;
    tk::Watch watch;
    std::set<FlowTuple> shown;  // a set, because a flow may show several packets
    bool reported = false;      // the log says that a flow cannot be removed
};

}  // namespace firewall
