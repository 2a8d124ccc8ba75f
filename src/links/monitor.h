#pragma once

#include <linux/netlink.h>

#include <optional>

#include "links/addresses.h"
#include "links/interfaces.h"
#include "links/publicroutes.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "netlink/notifications.h"
#include "tk/pacer.h"
#include "tk/status.h"

namespace links {

/// Keeps the zones, and the interfaces and addresses on the bus, in step with the kernel: first listens, then
/// reads everything, then applies what was heard meanwhile. When the kernel had to drop a notification,
/// everything is read again. Listens to routes, too, if the zones depend on them.
///
/// Whatever happens when a link, an address or a route comes or goes begins here.
class Monitor final : private netlink::Notifications::Owner {
public:
    /// Lifetime: all outlive the monitor.
    Monitor(RtNetlink& kernel, Zones& zones, Interfaces& interfaces, Addresses& addresses)
        : kernel(kernel), zones(zones), interfaces(interfaces), addresses(addresses) {}

    /// Returns once all of them know what the kernel has.
    /// Errors: something cannot be read, even routes only. The bus must then stay closed, as its users would
    /// not be guarded.
    tk::Status start();

    /// Tells the zones of the routes from now on, also while they do not depend on them. Returns once they know
    /// them.
    /// Errors: the routes cannot be read; they are not followed.
    tk::Status followRoutes();

private:
    void heard(const nlmsghdr& message, bool isStale) override;
    void lost() override;
    void linkHeard(const nlmsghdr& message, bool isThere);
    void addressHeard(const nlmsghdr& message, bool isThere);
    tk::Status readAll();
    void readAgain();

    RtNetlink& kernel;
    Zones& zones;  // told first: what the bus announces is in force
    Interfaces& interfaces;
    Addresses& addresses;
    std::optional<PublicRoutes> routes;  // none: they are not followed
    netlink::Notifications notifications{*this};
    tk::Pacer<Monitor, &Monitor::readAgain> retry{*this};
};

}  // namespace links
