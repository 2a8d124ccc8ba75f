#include "firewall/flowlog.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/ip.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <netinet/in.h>
#include <string.h>

#include <array>
#include <utility>

#include "firewall/rules.h"
#include "netlink/attributes.h"
#include "netlink/request.h"
#include "tk/log.h"

namespace firewall {

namespace {

// Of each packet: the longest IPv4 header, and the ports after it.
constexpr std::uint32_t shownBytes = 64;
constexpr int bufferBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 256;
constexpr std::uint32_t wordBytes = 4;  // the unit of the length of an IPv4 header
constexpr std::size_t requestBytes = 256;

/// Room for one request. It begins as zeros, for what stands between two attributes goes to the kernel, too.
struct Room {
    alignas(nlmsghdr) std::array<char, requestBytes> bytes{};
};

constexpr netlink::AttributeRule packetRules[] = {{NFULA_PAYLOAD, MNL_TYPE_UNSPEC, 0}};

nlmsghdr* putHeader(char* buffer, std::uint16_t type, std::uint8_t family, std::uint16_t resource) {
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST;
    auto* own = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    own->nfgen_family = family;
    own->version = NFNETLINK_V0;
    own->res_id = htons(resource);
    return message;
}

nlmsghdr* putRemoval(char* buffer, const FlowTuple& flow) {
    constexpr std::uint16_t type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_DELETE;
    nlmsghdr* message = putHeader(buffer, type, AF_INET, 0);
    nlattr* tuple = mnl_attr_nest_start(message, CTA_TUPLE_ORIG);
    nlattr* part = mnl_attr_nest_start(message, CTA_TUPLE_IP);
    mnl_attr_put_u32(message, CTA_IP_V4_SRC, flow.source);
    mnl_attr_put_u32(message, CTA_IP_V4_DST, flow.key.destination);
    mnl_attr_nest_end(message, part);
    part = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
    mnl_attr_put_u8(message, CTA_PROTO_NUM, flow.key.protocol);
    mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(flow.sourcePort));
    mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(flow.key.port));
    mnl_attr_nest_end(message, part);
    mnl_attr_nest_end(message, tuple);
    return message;
}

}  // namespace

std::optional<FlowTuple> parseFlow(std::span<const char> packet) {
    iphdr header{};
    std::array<std::uint16_t, 2> ports{};
    if (packet.size() < sizeof header) return std::nullopt;
    ::memcpy(&header, packet.data(), sizeof header);
    const std::size_t length = std::size_t{header.ihl} * wordBytes;
    const bool isKnown = header.protocol == IPPROTO_TCP || header.protocol == IPPROTO_UDP;
    if (header.version != IPVERSION || length < sizeof header || !isKnown) return std::nullopt;
    if (packet.size() < length + sizeof ports) return std::nullopt;
    ::memcpy(ports.data(), packet.data() + length, sizeof ports);
    return FlowTuple{{header.daddr, header.protocol, ntohs(ports[1])}, header.saddr, ntohs(ports[0])};
}

tk::Status FlowLog::open() {
    tk::Status status = socket.open(NETLINK_NETFILTER);
    if (!status.isOk()) return status.prefixed("nfnetlink_log: ");
    socket.setBuffers(bufferBytes, bufferBytes);
    status = configure();
    if (status.isOk() && !removes())
        status = tk::Status::failure("nf_conntrack_netlink: this kernel lacks it (Linux 2.6.14)");
    if (status.isOk())
        watch.start<FlowLog, &FlowLog::ready>(socket.descriptor(), *this, tk::readable);
    else
        socket.close();
    return status;
}

/// True when the kernel can remove flows: asked to remove one that does not exist, it says so.
bool FlowLog::removes() {
    Room room;
    const FlowTuple nobodys{{htonl(INADDR_LOOPBACK), IPPROTO_UDP, 0}, htonl(INADDR_LOOPBACK), 0};
    return netlink::request(socket, *putRemoval(room.bytes.data(), nobodys)).code() == ENOENT;
}

/// Asks for the beginning of each packet, without delay.
tk::Status FlowLog::configure() {
    Room room;
    constexpr std::uint16_t type = NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_CONFIG;
    nlmsghdr* message = putHeader(room.bytes.data(), type, AF_UNSPEC, flowLogGroup);
    const nfulnl_msg_config_cmd command{NFULNL_CFG_CMD_BIND};
    mnl_attr_put(message, NFULA_CFG_CMD, sizeof command, &command);
    nfulnl_msg_config_mode mode{};
    mode.copy_range = htonl(shownBytes);
    mode.copy_mode = NFULNL_COPY_PACKET;
    mnl_attr_put(message, NFULA_CFG_MODE, sizeof mode, &mode);
    mnl_attr_put_u32(message, NFULA_CFG_QTHRESH, htonl(1));
    const tk::Status result = netlink::request(socket, *message);
    if (result.code() == EPERM)
        return tk::Status::failure("nfnetlink_log: no permission, or another process listens to group " +
                                   std::to_string(flowLogGroup));
    // When the module is missing, old kernels say that the message is not valid.
    if (result.code() == EINVAL || result.code() == EOPNOTSUPP)
        return tk::Status::failure("nfnetlink_log: this kernel lacks it (Linux 2.6.14)");
    return result.prefixed("nfnetlink_log: ");
}

void FlowLog::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = socket.receive(0, [this](const nlmsghdr& message) { take(message); });
        // A flow whose packet was lost here is shown again with its next packet.
        if (!result.isOk() || *result == netlink::Socket::Received::nothing) break;
    }
    removeShown();
}

void FlowLog::take(const nlmsghdr& message) {
    if (message.nlmsg_type == NLMSG_ERROR) {
        const tk::Status result = netlink::outcomeOf(message);
        if (result.isOk() || result.code() == ENOENT || std::exchange(reported, true))
            return;  // ENOENT: the flow may have ended
        return tk::log("nat: flows cannot be removed: ", result.reason());
    }
    if (message.nlmsg_type != (NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_PACKET)) return;
    const netlink::Attributes attributes(message, sizeof(nfgenmsg), packetRules);
    const nlattr* payload = attributes.find(NFULA_PAYLOAD);
    if (!payload) return;
    const auto* start = static_cast<const char*>(mnl_attr_get_payload(payload));
    if (const auto flow = parseFlow({start, mnl_attr_get_payload_len(payload)})) shown.insert(*flow);
}

void FlowLog::removeShown() {
    Room room;
    for (const FlowTuple& flow : std::exchange(shown, {})) {
        nlmsghdr* message = putRemoval(room.bytes.data(), flow);
        message->nlmsg_seq = socket.nextSequence();
        const tk::Status sent = socket.send(message, message->nlmsg_len);
        if (!sent.isOk() && !std::exchange(reported, true))
            tk::log("nat: flows cannot be removed: ", sent.reason());
    }
}

}  // namespace firewall
