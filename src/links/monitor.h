#pragma once

#include <linux/netlink.h>

#include <string>

#include "links/addresses.h"
#include "links/interfaces.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "netlink/socket.h"
#include "tk/timer.h"

namespace router {

/// Keeps the zones, and the interfaces and addresses on the bus, in step with the kernel: listens first,
/// reads everything second, and applies what was heard meanwhile third. When the kernel had to drop a
/// notification, everything is read again.
class NetworkMonitor {
public:
    /// Lifetime: all outlive the monitor.
    NetworkMonitor(RtNetlink& kernel, Zones& zones, Interfaces& interfaces, Addresses& addresses)
        : kernel(kernel), zones(zones), interfaces(interfaces), addresses(addresses) {}

    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool start(std::string& reason);

private:
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    [[nodiscard]] bool readAll(std::string& reason);
    void readAgain();
    void discardQueue();

    RtNetlink& kernel;
    Zones& zones;  // which hear of everything first: what the bus tells is in force
    Interfaces& interfaces;
    Addresses& addresses;
    netlink::Socket events;
    tk::Watch watch;
    tk::Timer<NetworkMonitor, &NetworkMonitor::readAgain> retry{*this};
};

}  // namespace router
