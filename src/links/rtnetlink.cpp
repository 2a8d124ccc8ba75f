#include "links/rtnetlink.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <optional>

#include "links/rtmessages.h"
#include "netlink/request.h"

namespace router {

namespace {

/// A request with a family's own header, and room for the few attributes that are sent here.
template <typename Header>
class Request {
public:
    explicit Request(std::uint16_t type) {
        message = mnl_nlmsg_put_header(buffer);
        message->nlmsg_type = type;
        own = static_cast<Header*>(mnl_nlmsg_put_extra_header(message, sizeof(Header)));
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    Header* operator->() { return own; }
    nlmsghdr& get() { return *message; }

private:
    alignas(nlmsghdr) char buffer[256];
    nlmsghdr* message;
    Header* own;
};

bool accept(const tk::Status& result, std::string& reason) {
    if (!result.isOk()) reason = result.reason();
    return result.isOk();
}

}  // namespace

bool RtNetlink::open(std::string& reason) {
    return accept(socket.open(NETLINK_ROUTE).prefixed("rtnetlink: "), reason);
}

bool RtNetlink::readLink(std::uint32_t index, Link& out, std::string& reason) {
    Request<ifinfomsg> request(RTM_GETLINK);
    request->ifi_index = static_cast<int>(index);
    const tk::Status result = netlink::request(socket, request.get(), [&out](const nlmsghdr& message) {
        if (const auto link = parseLink(message)) out = *link;
    });
    return accept(result, reason);
}

bool RtNetlink::setLinkUp(std::uint32_t index, bool up, std::string& reason) {
    Request<ifinfomsg> request(RTM_NEWLINK);
    request->ifi_index = static_cast<int>(index);
    request->ifi_flags = up ? IFF_UP : 0;
    request->ifi_change = IFF_UP;
    return accept(netlink::request(socket, request.get()), reason);
}

bool RtNetlink::readNextHop(std::uint32_t id, NextHop& out, std::string& reason) {
    Request<nhmsg> request(RTM_GETNEXTHOP);
    mnl_attr_put_u32(&request.get(), NHA_ID, id);
    const tk::Status result = netlink::request(
        socket, request.get(), [&out](const nlmsghdr& message) { out = parseNextHop(message); });
    return result.code() == ENOENT || result.code() == EOPNOTSUPP || accept(result, reason);
}

bool RtNetlink::addInterfacesOf(std::uint32_t nextHop, std::set<std::uint32_t>& out, std::string& reason) {
    NextHop hop;
    if (!readNextHop(nextHop, hop, reason)) return false;
    if (hop.interface != 0) out.insert(hop.interface);
    for (const std::uint32_t id : hop.members) {  // which are no groups
        NextHop member;
        if (!readNextHop(id, member, reason)) return false;
        if (member.interface != 0) out.insert(member.interface);
    }
    return true;
}

bool RtNetlink::readLinks(std::vector<Link>& out, std::string& reason) {
    Request<ifinfomsg> request(RTM_GETLINK);
    const tk::Status result = netlink::dump(
        socket, request.get(), [&out] { out.clear(); },
        [&out](const nlmsghdr& message) {
            if (const auto link = parseLink(message)) out.push_back(*link);
        });
    return accept(result, reason);
}

bool RtNetlink::readAddresses(std::vector<LinkAddress>& out, std::string& reason) {
    Request<ifaddrmsg> request(RTM_GETADDR);
    request->ifa_family = AF_INET;
    const tk::Status result = netlink::dump(
        socket, request.get(), [&out] { out.clear(); },
        [&out](const nlmsghdr& message) {
            if (const auto address = parseAddress(message)) out.push_back(*address);
        });
    return accept(result, reason);
}

}  // namespace router
