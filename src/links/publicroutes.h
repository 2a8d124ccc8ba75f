#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "links/routereader.h"
#include "links/rtnetlink.h"
#include "links/zones.h"
#include "netlink/socket.h"
#include "tk/timer.h"

namespace router {

/// Tells the zones which interfaces carry a route beyond the private ranges. A route without a metric counts
/// as soon as it comes, for no other can take its place; whether one with a metric is the best one to its
/// destination is learnt by reading them all. An interface that has carried one is outside for good: so the
/// routes that come and go over such interfaces, be they very many, cost next to nothing.
class PublicRoutes final : private RouteReader::Owner {
public:
    /// Lifetime: both outlive the object.
    PublicRoutes(RtNetlink& kernel, Zones& zones) : kernel(kernel), zones(zones) {}

    /// Returns when the zones know. Errors: false, with the reason in `reason`; also when the routes, or
    /// where one of them leads, cannot be read: the bus must not open to users who are not guarded.
    [[nodiscard]] bool start(std::string& reason);

    /// True while all routes are read, or are to be read soon.
    bool isReading() const { return isDue || reader.isBusy(); }

private:
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void routeComes(const Route& route);
    void nextHopComes(const nlmsghdr& message);
    void somethingGoes();
    [[nodiscard]] bool isKnown(const Route& route) const;
    void note();
    void schedule(std::uint32_t ticks);
    void read();
    void keepDistance();
    void retryLater();
    void routesRead(const RouteExits& exits, bool isComplete) override;
    void routesUnread(const std::string& reason) override;
    void fail(const std::string& why);
    [[nodiscard]] bool tell(const RouteExits& exits);

    RtNetlink& kernel;
    Zones& zones;
    netlink::Socket events;
    tk::Watch watch;
    RouteReader reader{*this};
    RouteExits known;   // of what was told, and of what was read last
    RouteExits coming;  // since the last reading began, which may have missed it
    std::string fault;  // why the last reading or telling failed, empty where it did not
    bool isStarted = false;
    bool isDue = false;  // another reading
    std::chrono::steady_clock::time_point restEnd;
    tk::Timer<PublicRoutes, &PublicRoutes::read> delay{*this};
};

}  // namespace router
