#include "links/rtnetlink.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>

#include <optional>
#include <utility>

#include "netlink/attributes.h"
#include "netlink/request.h"

namespace links {

namespace {

constexpr netlink::AttributeRule linkRules[] = {
    {IFLA_IFNAME, MNL_TYPE_NUL_STRING, 0},
    {IFLA_IFALIAS, MNL_TYPE_NUL_STRING, 0},
    {IFLA_WIRELESS, MNL_TYPE_UNSPEC, 0},
    {IFLA_LINK, MNL_TYPE_U32, 0},
    {IFLA_LINK_NETNSID, MNL_TYPE_U32, 0},
    {IFLA_MASTER, MNL_TYPE_U32, 0},
    {IFLA_LINKINFO, MNL_TYPE_NESTED, 0},
    // Older kernels know fewer counters.
    {IFLA_STATS64, MNL_TYPE_UNSPEC, offsetof(rtnl_link_stats64, rx_errors)},
};

constexpr netlink::AttributeRule addressRules[] = {
    {IFA_LOCAL, MNL_TYPE_U32, 0},
    {IFA_ADDRESS, MNL_TYPE_U32, 0},
    {IFA_BROADCAST, MNL_TYPE_U32, 0},
};

constexpr netlink::AttributeRule nextHopRules[] = {
    {NHA_OIF, MNL_TYPE_U32, 0},
    {NHA_GROUP, MNL_TYPE_UNSPEC, sizeof(nexthop_grp)},
};

contract::InterfaceCounters countersOf(const netlink::Attributes& attributes) {
    const nlattr* attribute = attributes.find(IFLA_STATS64);
    if (!attribute) return {};
    rtnl_link_stats64 stats{};
    const std::size_t size = mnl_attr_get_payload_len(attribute);
    // It is not aligned there.
    ::memcpy(&stats, mnl_attr_get_payload(attribute), size < sizeof stats ? size : sizeof stats);
    return {stats.rx_packets, stats.tx_packets, stats.rx_bytes, stats.tx_bytes};
}

int takeKind(const nlattr* attribute, void* kind) {
    if (mnl_attr_get_type(attribute) == IFLA_INFO_KIND &&
        mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0)
        *static_cast<std::string*>(kind) = mnl_attr_get_str(attribute);
    return MNL_CB_OK;
}

/// The kind of interface: the name of its driver; empty for a plain one.
std::string kindOf(const netlink::Attributes& attributes) {
    std::string kind;
    if (const nlattr* info = attributes.find(IFLA_LINKINFO))
        (void)mnl_attr_parse_nested(info, &takeKind, &kind);
    return kind;
}

/// The device below. For a pair the kernel names the other end instead, which is no part of the interface.
/// The index of a device in another network namespace means nothing here.
std::uint32_t lowerOf(const netlink::Attributes& attributes, std::uint32_t index) {
    if (attributes.find(IFLA_LINK_NETNSID)) return 0;
    const std::uint32_t lower = attributes.u32(IFLA_LINK);
    if (lower == index) return 0;
    const std::string kind = kindOf(attributes);
    return kind == "veth" || kind == "vxcan" || kind == "netkit" ? 0 : lower;
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

void takeRouteNumber(std::uint16_t type, std::uint32_t value, Route& route) {
    if (type == RTA_DST) route.prefix.network = ntohl(value) & route.prefix.mask;
    if (type == RTA_PRIORITY) route.metric = value;
    if (type == RTA_TABLE) route.table = value;
    if (type == RTA_NH_ID) route.nextHop = value;
    if (type == RTA_OIF) route.interfaces.push_back(value);
}

int takeRouteAttribute(const nlattr* attribute, void* data) {
    Route& route = *static_cast<Route*>(data);
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (type == RTA_MULTIPATH) addNextHops(attribute, route.interfaces);
    if (type == RTA_GATEWAY || type == RTA_VIA) route.isOwnNetwork = false;
    if (mnl_attr_get_payload_len(attribute) == sizeof(std::uint32_t))
        takeRouteNumber(type, mnl_attr_get_u32(attribute), route);
    return MNL_CB_OK;
}

/// A request with a family's own header, and room for the few attributes that go with it.
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

/// Everything in a list of the kernel's that can be read.
template <typename T>
tk::Result<std::vector<T>> listOf(netlink::Socket& socket, nlmsghdr& request,
                                  std::optional<T> (*parse)(const nlmsghdr&)) {
    std::vector<T> found;
    tk::Status outcome = netlink::dump(
        socket, request, [&found] { found.clear(); },
        [&found, parse](const nlmsghdr& message) {
            if (auto one = parse(message)) found.push_back(std::move(*one));
        });
    if (!outcome.isOk()) return outcome;
    return found;
}

}  // namespace

bool Link::isLoopback() const {
    return (flags & IFF_LOOPBACK) != 0;
}

bool Link::isUp() const {
    return (flags & IFF_UP) != 0;
}

bool Link::isRunning() const {
    // The kernel sets IFF_RUNNING when the operational state is up, or the driver does not know it.
    return isUp() && (flags & IFF_RUNNING) != 0;
}

std::optional<Link> parseLink(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return std::nullopt;
    const auto* header = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    if (header->ifi_family != AF_UNSPEC) return std::nullopt;
    const netlink::Attributes attributes(message, sizeof *header, linkRules);
    if (attributes.find(IFLA_WIRELESS) || !attributes.find(IFLA_IFNAME)) return std::nullopt;
    Link link;
    link.index = static_cast<std::uint32_t>(header->ifi_index);
    link.name = attributes.text(IFLA_IFNAME);
    link.alias = attributes.text(IFLA_IFALIAS);
    link.hardwareType = header->ifi_type;
    link.flags = header->ifi_flags;
    link.lower = lowerOf(attributes, link.index);
    link.master = attributes.u32(IFLA_MASTER);
    link.counters = countersOf(attributes);
    return link;
}

std::optional<LinkAddress> parseAddress(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifaddrmsg)) return std::nullopt;
    const auto* header = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
    if (header->ifa_family != AF_INET) return std::nullopt;
    const netlink::Attributes attributes(message, sizeof *header, addressRules);
    const std::uint32_t peer = attributes.u32(IFA_ADDRESS);
    const std::uint32_t local = attributes.u32(IFA_LOCAL, peer);
    if (local == 0) return std::nullopt;
    const bool isGlobal = header->ifa_scope == RT_SCOPE_UNIVERSE;
    return LinkAddress{header->ifa_index,     local,    peer,
                       header->ifa_prefixlen, isGlobal, attributes.u32(IFA_BROADCAST)};
}

bool Route::leadsBeyond() const {
    return (leadsSomewhere || nextHop != 0) && !isOwnNetwork && isBeyondPrivateRanges(prefix);
}

// There may be very many routes: their attributes are read as they come.
Route parseRoute(const nlmsghdr& message) {
    Route route;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(rtmsg)) return route;
    const auto* header = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    if (header->rtm_family != AF_INET) return route;
    route.table = header->rtm_table;
    route.prefix = prefixOf(0, header->rtm_dst_len);
    route.service = header->rtm_tos;
    route.leadsSomewhere = header->rtm_type == RTN_UNICAST;
    route.isOwnNetwork = header->rtm_protocol == RTPROT_KERNEL;
    (void)mnl_attr_parse(&message, sizeof *header, &takeRouteAttribute, &route);
    return route;
}

NextHop parseNextHop(const nlmsghdr& message) {
    NextHop hop;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nhmsg)) return hop;
    const netlink::Attributes attributes(message, sizeof(nhmsg), nextHopRules);
    hop.interface = attributes.u32(NHA_OIF);
    const nlattr* group = attributes.find(NHA_GROUP);
    if (!group) return hop;
    const auto* member = static_cast<const nexthop_grp*>(mnl_attr_get_payload(group));
    const std::size_t count = mnl_attr_get_payload_len(group) / sizeof *member;
    for (std::size_t i = 0; i < count; ++i) hop.members.push_back(member[i].id);
    return hop;
}

tk::Status RtNetlink::open() {
    return socket.open(NETLINK_ROUTE).prefixed("rtnetlink: ");
}

tk::Result<Link> RtNetlink::readLink(std::uint32_t index) {
    Request<ifinfomsg> request(RTM_GETLINK);
    request->ifi_index = static_cast<int>(index);
    Link found;
    tk::Status outcome = netlink::request(socket, request.get(), [&found](const nlmsghdr& message) {
        if (const auto link = parseLink(message)) found = *link;
    });
    if (!outcome.isOk()) return outcome;
    return found;
}

tk::Status RtNetlink::setLinkUp(std::uint32_t index, bool up) {
    Request<ifinfomsg> request(RTM_NEWLINK);
    request->ifi_index = static_cast<int>(index);
    request->ifi_flags = up ? IFF_UP : 0;
    request->ifi_change = IFF_UP;
    return netlink::request(socket, request.get());
}

/// A nexthop object; one that leads nowhere when there is no such object.
tk::Result<NextHop> RtNetlink::readNextHop(std::uint32_t id) {
    Request<nhmsg> request(RTM_GETNEXTHOP);
    mnl_attr_put_u32(&request.get(), NHA_ID, id);
    NextHop found;
    tk::Status outcome = netlink::request(
        socket, request.get(), [&found](const nlmsghdr& message) { found = parseNextHop(message); });
    if (outcome.isOk() || outcome.code() == ENOENT || outcome.code() == EOPNOTSUPP) return found;
    return outcome;
}

tk::Status RtNetlink::addInterfacesOf(std::uint32_t nextHop, std::set<std::uint32_t>& out) {
    const tk::Result<NextHop> hop = readNextHop(nextHop);
    if (!hop.isOk()) return hop.status();
    if (hop->interface != 0) out.insert(hop->interface);
    for (const std::uint32_t id : hop->members) {  // which are no groups
        const tk::Result<NextHop> member = readNextHop(id);
        if (!member.isOk()) return member.status();
        if (member->interface != 0) out.insert(member->interface);
    }
    return {};
}

tk::Result<std::vector<Link>> RtNetlink::readLinks() {
    Request<ifinfomsg> request(RTM_GETLINK);
    return listOf<Link>(socket, request.get(), &parseLink);
}

tk::Result<std::vector<LinkAddress>> RtNetlink::readAddresses() {
    Request<ifaddrmsg> request(RTM_GETADDR);
    request->ifa_family = AF_INET;
    return listOf<LinkAddress>(socket, request.get(), &parseAddress);
}

}  // namespace links
