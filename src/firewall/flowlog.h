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

/// Whose packets are of one flow, as its first one was sent. A value.
/// Byte order: the address in network order, the port in host order.
struct FlowTuple {
    NatKey key;  // where it was sent to
    std::uint32_t source = 0;
    std::uint16_t sourcePort = 0;

    auto operator<=>(const FlowTuple&) const = default;
};

/// Reads the beginning of an IPv4 packet. Empty for all but TCP and UDP, and for what is cut off.
[[nodiscard]] std::optional<FlowTuple> parseFlow(std::span<const char> packet);

/// Takes single flows out of the kernel's table of connections: those whose packets the router's table shows
/// in the packet log. The next packet of such a flow then goes where the rules lead now. The table limits how
/// many it shows in a second.
class FlowLog {
public:
    /// Begins to listen.
    /// Lifetime: there is a loop from now on until the object is gone.
    tk::Status open();

private:
    tk::Status configure();
    [[nodiscard]] bool removes();
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void removeShown();

    netlink::Socket socket;
    tk::Watch watch;
    std::set<FlowTuple> shown;  // several packets of one flow may be
    bool reported = false;      // that a flow cannot be removed
};

}  // namespace firewall
