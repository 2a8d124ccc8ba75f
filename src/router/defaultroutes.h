#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

#include "router/netlinksocket.h"
#include "router/networkkernel.h"
#include "tk/timer.h"

namespace router {

/// Where default routes lead. A value.
struct DefaultExits {
    std::set<std::uint32_t> interfaces;  // indexes, of routes that lead there by themselves
    std::set<std::uint32_t> nextHops;    // ids of the objects that all others lead to

    void add(const Route& route);
};

/// Reads where the IPv4 default routes of all tables lead. The kernel tells them only among all its routes,
/// which may be very many: they are read in parts that leave the loop time for others.
class DefaultRoutes final {
public:
    /// Who wants to know.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// A reading is over. Not `isComplete` when routes changed meanwhile, so that some may be missing.
        virtual void defaultRoutesRead(const DefaultExits& exits, bool isComplete) = 0;
        /// A reading has failed.
        virtual void defaultRoutesUnread(const std::string& reason) = 0;
    };

    /// Lifetime: the owner outlives the object.
    explicit DefaultRoutes(Owner& owner) : owner(owner) {}

    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::string& reason);

    /// Begins to read; one reading at a time. The owner is called when it is over.
    void begin();
    /// Waits for the end of the reading that is under way.
    void complete();
    /// True while a reading is under way.
    bool isBusy() const { return sequence != 0; }
    /// The time that the present reading, or else the last one, has kept others from the loop.
    std::chrono::steady_clock::duration cost() const { return spent; }

private:
    [[nodiscard]] bool step(int milliseconds);
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void finish(const std::string& fault);
    void fail(const std::string& reason);

    Owner& owner;
    NetlinkSocket socket;
    tk::Watch watch;
    DefaultExits exits;
    std::uint32_t sequence = 0;  // 0: no reading is under way
    bool isInterrupted = false;
    std::chrono::steady_clock::duration spent{};
};

}  // namespace router
