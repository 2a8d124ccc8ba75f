#pragma once

#include <linux/netlink.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

#include "router/defaultroutes.h"
#include "router/netlinksocket.h"
#include "router/nfttable.h"
#include "router/rtnetlink.h"
#include "tk/timer.h"

namespace router {

/// Tells the guard which interfaces carry a default route, whenever that may have changed. A route that comes
/// counts at once; which of them are gone is learnt by reading them all.
class Uplinks final : private DefaultRoutes::Owner {
public:
    /// Lifetime: both outlive the object.
    Uplinks(RtNetlink& kernel, NftTable& table) : kernel(kernel), table(table) {}

    /// Returns when the guard knows. Errors: false, with the reason in `reason`; also when the routes, or
    /// where one of them leads, cannot be read: the bus must not open to users who are not guarded.
    [[nodiscard]] bool start(std::string& reason);

private:
    void ready(int fd, std::uint32_t events);
    void take(const nlmsghdr& message);
    void hear(const Route& route);
    void note();
    void schedule(std::uint32_t ticks);
    void read();
    void keepDistance();
    void retryLater();
    void defaultRoutesRead(const DefaultExits& exits, bool isComplete) override;
    void defaultRoutesUnread(const std::string& reason) override;
    void fail(const std::string& why);
    [[nodiscard]] bool tell();

    RtNetlink& kernel;
    NftTable& table;
    NetlinkSocket events;
    tk::Watch watch;
    DefaultRoutes routes{*this};
    DefaultExits known;
    DefaultExits heard;            // since the last reading began, which may have missed it
    std::set<std::uint32_t> told;  // what the guard has
    std::string fault;             // why the last reading or telling failed, empty where it did not
    bool isStarted = false;
    bool isDue = false;   // another reading
    bool isNews = false;  // what is known may lead elsewhere now
    std::chrono::steady_clock::time_point restEnd;
    tk::Timer<Uplinks, &Uplinks::read> delay{*this};
};

}  // namespace router
