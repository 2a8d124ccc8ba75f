#pragma once

#include <set>
#include <string>
#include <vector>

#include "router/netlinksocket.h"
#include "router/networkkernel.h"

namespace router {

/// The kernel's interfaces, addresses and routes over rtnetlink: requests that are answered at once.
class RtNetlink final : public NetworkKernel {
public:
    /// Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::string& reason);

    [[nodiscard]] bool readLink(std::uint32_t index, Link& out, std::string& reason) override;
    [[nodiscard]] bool setLinkUp(std::uint32_t index, bool up, std::string& reason) override;
    [[nodiscard]] Route routeTo(std::uint32_t address) override;

    /// Reads all interfaces, or all IPv4 addresses of global scope. Errors: false, with the reason in
    /// `reason`.
    [[nodiscard]] bool readLinks(std::vector<Link>& out, std::string& reason);
    [[nodiscard]] bool readAddresses(std::vector<LinkAddress>& out, std::string& reason);
    /// Reads the indexes of the interfaces that some IPv4 default route leads out of, in whichever table.
    [[nodiscard]] bool readUplinks(std::set<std::uint32_t>& out, std::string& reason);

private:
    NetlinkSocket socket;
};

}  // namespace router
