#pragma once

#include <linux/netlink.h>

#include <string>

#include "router/netlinksocket.h"
#include "router/nfttable.h"
#include "router/rtnetlink.h"
#include "tk/timer.h"

namespace router {

/// Tells the guard which interfaces carry a default route, whenever that may have changed.
class Uplinks final {
public:
    /// Lifetime: both outlive the object.
    Uplinks(RtNetlink& kernel, NftTable& table) : kernel(kernel), table(table) {}

    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool start(std::string& reason);

private:
    void ready(int fd, std::uint32_t events);
    void read();

    RtNetlink& kernel;
    NftTable& table;
    NetlinkSocket events;
    tk::Watch watch;
    bool isDue = false;
    tk::Timer<Uplinks, &Uplinks::read> delay{*this};
};

}  // namespace router
