#pragma once

#include <set>
#include <string>
#include <vector>

#include "links/kernel.h"
#include "netlink/socket.h"

namespace router {

struct NextHop;

/// The kernel's interfaces, addresses and nexthop objects over rtnetlink: requests that are answered at once.
class RtNetlink final : public NetworkKernel {
public:
    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::string& reason);

    [[nodiscard]] bool readLink(std::uint32_t index, Link& out, std::string& reason) override;
    [[nodiscard]] bool setLinkUp(std::uint32_t index, bool up, std::string& reason) override;

    /// Adds the indexes of the interfaces that a nexthop object leads out of: none for one that is no more,
    /// and none with a kernel that has no such objects. Errors: false, with the reason in `reason`.
    [[nodiscard]] bool addInterfacesOf(std::uint32_t nextHop, std::set<std::uint32_t>& out,
                                       std::string& reason);

    /// Reads all interfaces, or all IPv4 addresses. Errors: false, with the reason in `reason`.
    [[nodiscard]] bool readLinks(std::vector<Link>& out, std::string& reason);
    [[nodiscard]] bool readAddresses(std::vector<LinkAddress>& out, std::string& reason);

private:
    [[nodiscard]] bool readNextHop(std::uint32_t id, NextHop& out, std::string& reason);

    netlink::Socket socket;
};

}  // namespace router
