#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>

#include "router/netlinksocket.h"
#include "tk/timer.h"

namespace router {

/// Hears of what others do to the router's table, where the kernel does not keep them off it. What the owner
/// does itself is no news, and once it has made the table anew, nothing is that happened before.
class NftWatch {
public:
    /// Whoever keeps the table.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// Somebody else changed the table, or may have: the kernel had no room for a notification.
        virtual void tableChanged() = 0;
    };

    /// Lifetime: the owner outlives the watch.
    explicit NftWatch(Owner& owner) : owner(owner) {}

    /// Begins to listen. `ownPort` is the netlink port that the owner changes the table from.
    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::uint32_t ownPort, std::string& reason);

private:
    [[nodiscard]] bool ignoreOwnElements() const;
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);

    Owner& owner;
    NetlinkSocket socket;
    tk::Watch watch;
    std::uint32_t ownPort = 0;
    bool isChanged = false;  // by somebody else, since the owner made the table
};

}  // namespace router
