#include "router/rtmessages.h"

#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>

#include "router/netlinkattributes.h"

namespace router {

namespace {

constexpr AttributeRule linkRules[] = {
    {IFLA_IFNAME, MNL_TYPE_NUL_STRING, 0},
    {IFLA_IFALIAS, MNL_TYPE_NUL_STRING, 0},
    {IFLA_WIRELESS, MNL_TYPE_UNSPEC, 0},
    {IFLA_STATS64, MNL_TYPE_UNSPEC,
     offsetof(rtnl_link_stats64, rx_errors)},  // older kernels know fewer counters
};

constexpr AttributeRule addressRules[] = {
    {IFA_LOCAL, MNL_TYPE_U32, 0},
    {IFA_ADDRESS, MNL_TYPE_U32, 0},
};

constexpr AttributeRule routeRules[] = {
    {RTA_OIF, MNL_TYPE_U32, 0},
    {RTA_MULTIPATH, MNL_TYPE_UNSPEC, sizeof(rtnexthop)},
    {RTA_NH_ID, MNL_TYPE_U32, 0},
};

constexpr AttributeRule nextHopRules[] = {
    {NHA_OIF, MNL_TYPE_U32, 0},
    {NHA_GROUP, MNL_TYPE_UNSPEC, sizeof(nexthop_grp)},
};

LinkCounters countersOf(const NetlinkAttributes& attributes) {
    const nlattr* attribute = attributes.find(IFLA_STATS64);
    if (!attribute) return {};
    rtnl_link_stats64 stats{};
    const std::size_t size = mnl_attr_get_payload_len(attribute);
    ::memcpy(&stats, mnl_attr_get_payload(attribute),
             size < sizeof stats ? size : sizeof stats);  // unaligned there
    return {stats.rx_packets, stats.tx_packets, stats.rx_bytes, stats.tx_bytes};
}

Route::Type typeOf(unsigned char kernelType) {
    switch (kernelType) {
        case RTN_UNICAST:
            return Route::Type::unicast;
        case RTN_LOCAL:
            return Route::Type::local;
        case RTN_BROADCAST:
            return Route::Type::broadcast;
        case RTN_MULTICAST:
            return Route::Type::multicast;
        default:
            return Route::Type::none;
    }
}

void addNextHops(const nlattr* attribute, std::vector<std::uint32_t>& interfaces) {
    const char* next = static_cast<const char*>(mnl_attr_get_payload(attribute));
    std::size_t left = mnl_attr_get_payload_len(attribute);
    while (left >= sizeof(rtnexthop)) {
        const auto* hop = reinterpret_cast<const rtnexthop*>(next);
        const std::size_t size = RTNH_ALIGN(std::size_t{hop->rtnh_len});
        if (hop->rtnh_len < sizeof(rtnexthop)) return;
        interfaces.push_back(static_cast<std::uint32_t>(hop->rtnh_ifindex));
        if (size >= left) return;
        next += size;
        left -= size;
    }
}

}  // namespace

bool Link::isLoopback() const {
    return (flags & IFF_LOOPBACK) != 0;
}

bool Link::isUp() const {
    return (flags & IFF_UP) != 0;
}

bool Link::isRunning() const {
    // The kernel sets IFF_RUNNING where the operational state is up, or unknown to the driver.
    return isUp() && (flags & IFF_RUNNING) != 0;
}

std::optional<Link> parseLink(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return std::nullopt;
    const auto* header = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    if (header->ifi_family != AF_UNSPEC) return std::nullopt;
    const NetlinkAttributes attributes(message, sizeof *header, linkRules);
    if (attributes.find(IFLA_WIRELESS) || !attributes.find(IFLA_IFNAME)) return std::nullopt;
    Link link;
    link.index = static_cast<std::uint32_t>(header->ifi_index);
    link.name = attributes.text(IFLA_IFNAME);
    link.alias = attributes.text(IFLA_IFALIAS);
    link.hardwareType = header->ifi_type;
    link.flags = header->ifi_flags;
    link.counters = countersOf(attributes);
    return link;
}

std::optional<LinkAddress> parseAddress(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifaddrmsg)) return std::nullopt;
    const auto* header = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
    if (header->ifa_family != AF_INET) return std::nullopt;
    const NetlinkAttributes attributes(message, sizeof *header, addressRules);
    const std::uint32_t peer = attributes.u32(IFA_ADDRESS);
    const std::uint32_t local = attributes.u32(IFA_LOCAL, peer);
    if (local == 0) return std::nullopt;
    const bool isGlobal = header->ifa_scope == RT_SCOPE_UNIVERSE;
    return LinkAddress{header->ifa_index, local, peer, header->ifa_prefixlen, isGlobal};
}

Route parseRoute(const nlmsghdr& message) {
    Route route;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(rtmsg)) return route;
    const auto* header = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    route.type = typeOf(header->rtm_type);
    route.prefixLength = header->rtm_dst_len;
    const NetlinkAttributes attributes(message, sizeof *header, routeRules);
    if (attributes.find(RTA_OIF)) route.interfaces.push_back(attributes.u32(RTA_OIF));
    if (const nlattr* hops = attributes.find(RTA_MULTIPATH)) addNextHops(hops, route.interfaces);
    route.nextHop = attributes.u32(RTA_NH_ID);
    return route;
}

bool isOfDefaultRoute(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(rtmsg)) return false;
    return Route::isDefaultPrefix(static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message))->rtm_dst_len);
}

NextHop parseNextHop(const nlmsghdr& message) {
    NextHop hop;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nhmsg)) return hop;
    const NetlinkAttributes attributes(message, sizeof(nhmsg), nextHopRules);
    hop.interface = attributes.u32(NHA_OIF);
    const nlattr* group = attributes.find(NHA_GROUP);
    if (!group) return hop;
    const auto* member = static_cast<const nexthop_grp*>(mnl_attr_get_payload(group));
    const std::size_t count = mnl_attr_get_payload_len(group) / sizeof *member;
    for (std::size_t i = 0; i < count; ++i) hop.members.push_back(member[i].id);
    return hop;
}

}  // namespace router
