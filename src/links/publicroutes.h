#pragma once

#include <linux/netlink.h>

#include <cstdint>

#include "links/routereader.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "tk/pacer.h"
#include "tk/status.h"

namespace links {

/// Tells the zones which interfaces carry a route beyond the private ranges. A route without a metric counts
/// as soon as it comes, as no other can be better. A route with a metric counts if it is the best one to its
/// destination, which takes a reading of all routes. An interface that has carried a route that counts is
/// outside for good. So even very many routes that come and go over such interfaces cost next to nothing.
class PublicRoutes final : private RouteReader::Owner {
public:
    /// Lifetime: the kernel and the zones outlive the object.
    PublicRoutes(RtNetlink& kernel, Zones& zones) : kernel(kernel), zones(zones) {}

    /// The groups of rtnetlink whose notifications go to heard().
    static const std::uint32_t groups;

    /// Returns once the zones know the routes.
    /// Errors: the routes, or where one of them leads, cannot be read.
    tk::Status start();
    /// Takes a notification from the kernel.
    void heard(const nlmsghdr& message);
    /// Has everything read again, after the present reading.
    void readAgain();

    /// True while all routes are read, or are to be read soon.
    bool isReading() const { return next.isDue() || reader.isBusy(); }

private:
    void routeComes(const Route& route);
    void nextHopComes(const nlmsghdr& message);
    void somethingGoes();
    [[nodiscard]] bool isKnown(const Route& route) const;
    void read();
    void keepDistance();
    void routesRead(const RouteExits& exits, bool isComplete) override;
    void routesUnread(const tk::Status& why) override;
    void fail(const tk::Status& why);
    [[nodiscard]] bool tell(const RouteExits& exits);

    RtNetlink& kernel;
    Zones& zones;
    RouteReader reader{*this};
    RouteExits known;   // from notifications and the last reading
    RouteExits coming;  // new since a reading began, which may miss them
    tk::Status fault;   // why the last reading or telling failed
    bool isStarted = false;
    bool isOutdated = false;  // true: another reading follows the present one
    tk::Pacer<PublicRoutes, &PublicRoutes::read> next{*this};
};

}  // namespace links
