#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>

#include "links/rtnetlink.h"
#include "netlink/request.h"
#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace links {

/// Where routes beyond the private ranges lead, each with one of their destinations. A value.
struct RouteExits {
    // By index: of routes that name their interfaces.
    std::map<std::uint32_t, Prefix> interfaces;
    // By id: the nexthop objects of all other routes.
    std::map<std::uint32_t, Prefix> nextHops;
    // The indexes of interfaces of routes that have a better one before them.
    std::set<std::uint32_t> fallbacks;
    bool hasFallbackByNextHop = false;

    /// Adds a route that is the best one to its destination, or one that is not.
    void add(const Route& route);
    void addFallback(const Route& route);
};

/// Reads where IPv4 routes lead: those of all tables that lead beyond the private ranges and are the best
/// ones to their destinations. The kernel only gives all its routes, which may be very many. So they are read
/// in parts that leave the loop time for others, and none is kept.
class RouteReader final {
public:
    /// Hears what was read.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// A reading is over. `isComplete` is false when routes changed meanwhile, so that some may be
        /// missing.
        virtual void routesRead(const RouteExits& exits, bool isComplete) = 0;
        /// A reading has failed.
        virtual void routesUnread(const tk::Status& why) = 0;
    };

    /// Lifetime: the owner outlives the object.
    explicit RouteReader(Owner& owner) : owner(owner) {}

    /// Opens the socket.
    /// Errors: there is no rtnetlink.
    /// Lifetime: a loop exists from now on until the object is gone.
    tk::Status open();

    /// Begins to read; one reading at a time. The owner is called when it is over.
    void begin();
    /// Waits for the end of the reading that is under way.
    void complete();
    /// True while a reading is under way.
    bool isBusy() const { return !answer.isComplete(); }
    /// How long the present reading, or else the last one, has kept the loop from others.
    std::chrono::steady_clock::duration cost() const { return spent; }

private:
    [[nodiscard]] bool step();
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void judge(const Route& route);
    void finish();

    Owner& owner;
    netlink::Socket socket;
    tk::Watch watch;
    RouteExits exits;
    Route best;              // to the destination that was read last
    netlink::Answer answer;  // complete: no reading is under way
    std::chrono::steady_clock::duration spent{};
};

}  // namespace links
