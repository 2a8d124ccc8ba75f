#pragma once

#include <linux/netlink.h>

#include <cstdint>

#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace netlink {

/// Receives what the kernel tells of its own accord.
class Notifications {
public:
    /// Hears the notifications.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// A message arrived. `isStale` is true when something after it was lost: state built from such
        /// messages would stay wrong.
        virtual void heard(const nlmsghdr& message, bool isStale) = 0;
        /// Something was lost, and all that waited has been heard: read everything again now.
        virtual void lost() = 0;
    };

    /// Lifetime: the owner outlives the object.
    explicit Notifications(Owner& owner) : owner(owner) {}

    /// Joins the groups (a mask) of a netlink family. Messages from now on wait for start().
    /// Errors: the code is an errno value.
    tk::Status open(int family, std::uint32_t groups);
    /// Joins further groups. Messages that wait are kept.
    /// Errors: the code is an errno value.
    tk::Status join(std::uint32_t groups) { return socket.join(groups); }
    /// Hands over the messages that wait and those that come.
    /// Lifetime: a loop exists from now on until the object is gone.
    void start();

private:
    void ready(int fd, std::uint32_t events);
    void discard();

    Owner& owner;
    Socket socket;
    tk::Watch watch;
};

}  // namespace netlink
