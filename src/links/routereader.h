#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "links/rtnetlink.h"
#include "netlink/request.h"
#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace links {

/// Where routes beyond the private ranges lead, each with one of the destinations. A value.
struct RouteExits {
    std::map<std::uint32_t, Prefix> interfaces;  // by index, of routes that lead there by themselves
    std::map<std::uint32_t, Prefix> nextHops;    // by id, of the objects that all others lead to
    std::set<std::uint32_t> fallbacks;           // indexes, of routes whose place better ones take
    bool hasFallbackByNextHop = false;

    /// Takes a route up that is the best one to its destination, or one that is not.
    void add(const Route& route);
    void addFallback(const Route& route);
};

/// Reads where the IPv4 routes of all tables lead that lead beyond the private ranges, and are the best ones
/// to their destinations. The kernel tells them only among all its routes, which may be very many: they are
/// read in parts that leave the loop time for others, and none is kept.
class RouteReader final {
public:
    /// Who wants to know.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// A reading is over. Not `isComplete` when routes changed meanwhile, so that some may be missing.
        virtual void routesRead(const RouteExits& exits, bool isComplete) = 0;
        /// A reading has failed.
        virtual void routesUnread(const tk::Status& why) = 0;
    };

    /// Lifetime: the owner outlives the object.
    explicit RouteReader(Owner& owner) : owner(owner) {}

    /// Errors: there is no rtnetlink.
    /// Lifetime: there is a loop from now on until the object is gone.
    tk::Status open();

    /// Begins to read; one reading at a time. The owner is called when it is over.
    void begin();
    /// Waits for the end of the reading that is under way.
    void complete();
    /// True while a reading is under way.
    bool isBusy() const { return !answer.isComplete(); }
    /// The time that the present reading, or else the last one, has kept others from the loop.
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
    Route best;              // of the destination that was read last
    netlink::Answer answer;  // complete: no reading is under way
    std::chrono::steady_clock::duration spent{};
};

}  // namespace links
