#pragma once

#include <linux/netlink.h>

#include <cstdint>

#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace netlink {

/// What the kernel tells of its own accord.
class Notifications {
public:
    /// Who wants to know.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// `isStale`: something was lost after it. What is kept by such messages would be wrong for good.
        virtual void heard(const nlmsghdr& message, bool isStale) = 0;
        /// Something was lost, and all that waited was heard: time to read everything again.
        virtual void lost() = 0;
    };

    /// Lifetime: the owner outlives the object.
    explicit Notifications(Owner& owner) : owner(owner) {}

    /// Joins the groups (a mask) of a netlink family. What is told from now on waits for start().
    /// Errors: the code is an errno value.
    tk::Status open(int family, std::uint32_t groups);
    /// Hands over what waits and what comes.
    /// Lifetime: there is a loop from now on until the object is gone.
    void start();

private:
    void ready(int fd, std::uint32_t events);
    void discard();

    Owner& owner;
    Socket socket;
    tk::Watch watch;
};

}  // namespace netlink
