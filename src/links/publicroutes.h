#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <map>
#include <string>

#include "links/routereader.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "tk/pacer.h"
#include "tk/status.h"

namespace links {

/// Tells the zones which interfaces carry a route beyond the private ranges. A route without a metric counts
/// as soon as it comes, for no other can take its place; whether one with a metric is the best one to its
/// destination is learnt by reading them all. An interface that has carried one is outside for good: so the
/// routes that come and go over such interfaces, be they very many, cost next to nothing.
class PublicRoutes final : private RouteReader::Owner {
public:
    /// Lifetime: both outlive the object.
    PublicRoutes(RtNetlink& kernel, Zones& zones) : kernel(kernel), zones(zones) {}

    /// The groups of rtnetlink whose notifications heard() has to hear.
    static const std::uint32_t groups;

    /// Returns when the zones know.
    /// Errors: the routes, or where one of them leads, cannot be read.
    tk::Status start();
    /// Takes up what the kernel tells.
    void heard(const nlmsghdr& message);
    /// Has everything read again, following the present reading.
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
    RouteExits known;   // of what was told, and of what was read last
    RouteExits coming;  // since the last reading began, which may have missed it
    tk::Status fault;   // why the last reading or telling failed
    bool isStarted = false;
    bool isOutdated = false;  // what is being read: another reading follows
    tk::Pacer<PublicRoutes, &PublicRoutes::read> next{*this};
};

}  // namespace links
