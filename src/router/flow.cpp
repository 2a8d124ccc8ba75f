#include "router/flow.h"

#include <arpa/inet.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>

#include <array>

#include "router/netlinkattributes.h"

namespace router {

namespace {

constexpr AttributeRule flowRules[] = {
    {CTA_TUPLE_ORIG, MNL_TYPE_NESTED, 0}, {CTA_TUPLE_REPLY, MNL_TYPE_NESTED, 0},
    {CTA_PROTOINFO, MNL_TYPE_NESTED, 0},  {CTA_ID, MNL_TYPE_U32, 0},
    {CTA_ZONE, MNL_TYPE_U16, 0},          {CTA_STATUS, MNL_TYPE_U32, 0},
};

// Of the attribute that makes a dump selective, newer than the headers may be.
constexpr std::uint16_t filterAttribute = 25;
constexpr std::uint16_t filterOriginal = 1;
constexpr std::uint32_t filterDestination = 1U << 1;
constexpr std::uint32_t filterProtocol = 1U << 3;
constexpr std::uint32_t filterPort = 1U << 5;

/// The attribute of a type within another one, null where it is absent or of another size.
const nlattr* within(const nlattr* outer, std::uint16_t type, mnl_attr_data_type kind) {
    if (!outer) return nullptr;
    const char* end = static_cast<const char*>(mnl_attr_get_payload(outer)) + mnl_attr_get_payload_len(outer);
    const auto* inner = static_cast<const nlattr*>(mnl_attr_get_payload(outer));
    while (mnl_attr_ok(inner, static_cast<int>(end - reinterpret_cast<const char*>(inner)))) {
        if (mnl_attr_get_type(inner) == type && mnl_attr_validate(inner, kind) == 0) return inner;
        inner = mnl_attr_next(inner);
    }
    return nullptr;
}

std::uint16_t portWithin(const nlattr* tuple, std::uint16_t type) {
    const nlattr* port = within(within(tuple, CTA_TUPLE_PROTO, MNL_TYPE_NESTED), type, MNL_TYPE_U16);
    return port ? ntohs(mnl_attr_get_u16(port)) : std::uint16_t{0};
}

std::uint32_t addressWithin(const nlattr* tuple, std::uint16_t type) {
    const nlattr* address = within(within(tuple, CTA_TUPLE_IP, MNL_TYPE_NESTED), type, MNL_TYPE_U32);
    return address ? mnl_attr_get_u32(address) : INADDR_ANY;
}

std::uint8_t protocolOf(const nlattr* tuple) {
    const nlattr* number =
        within(within(tuple, CTA_TUPLE_PROTO, MNL_TYPE_NESTED), CTA_PROTO_NUM, MNL_TYPE_U8);
    return number ? mnl_attr_get_u8(number) : std::uint8_t{0};
}

bool isEstablished(const nlattr* protocolInfo) {
    const nlattr* tcp = within(protocolInfo, CTA_PROTOINFO_TCP, MNL_TYPE_NESTED);
    const nlattr* state = within(tcp, CTA_PROTOINFO_TCP_STATE, MNL_TYPE_U8);
    return state && mnl_attr_get_u8(state) == TCP_CONNTRACK_ESTABLISHED;
}

void append(std::vector<char>& out, const nlattr* attribute) {
    if (!attribute) return;
    const char* start = reinterpret_cast<const char*>(attribute);
    out.insert(out.end(), start, start + MNL_ALIGN(attribute->nla_len));
}

nlmsghdr* putHeader(char* buffer, std::uint16_t type) {
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8 | type);
    auto* own = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    own->nfgen_family = AF_INET;
    own->version = NFNETLINK_V0;
    return message;
}

}  // namespace

std::optional<Flow> parseFlow(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nfgenmsg)) return std::nullopt;
    const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message));
    if (header->nfgen_family != AF_INET) return std::nullopt;
    const NetlinkAttributes attributes(message, sizeof *header, flowRules);
    const nlattr* original = attributes.find(CTA_TUPLE_ORIG);
    const nlattr* reply = attributes.find(CTA_TUPLE_REPLY);
    Flow flow;
    flow.protocol = protocolOf(original);
    if (!reply || (flow.protocol != IPPROTO_TCP && flow.protocol != IPPROTO_UDP)) return std::nullopt;
    flow.destination = addressWithin(original, CTA_IP_V4_DST);
    flow.port = portWithin(original, CTA_PROTO_DST_PORT);
    flow.target = addressWithin(reply, CTA_IP_V4_SRC);
    flow.targetPort = portWithin(reply, CTA_PROTO_SRC_PORT);
    flow.isEstablished = isEstablished(attributes.find(CTA_PROTOINFO));
    // A flow that another one announced, such as the data of a file transfer, is translated without any rule.
    flow.isTranslated = (ntohl(attributes.u32(CTA_STATUS)) & (IPS_DST_NAT | IPS_EXPECTED)) == IPS_DST_NAT;
    // A zone may hold for one direction alone, and then stands with its addresses.
    flow.isOfZone = attributes.find(CTA_ZONE) || within(original, CTA_TUPLE_ZONE, MNL_TYPE_U16) ||
                    within(reply, CTA_TUPLE_ZONE, MNL_TYPE_U16);
    append(flow.name, original);
    append(flow.name, attributes.find(CTA_ZONE));
    append(flow.name, attributes.find(CTA_ID));  // a younger flow of the same ends is another one
    return flow;
}

nlmsghdr* putFlowDump(char* buffer, const FlowSelection& selection) {
    nlmsghdr* message = putHeader(buffer, IPCTNL_MSG_CT_GET);
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (selection.destination == INADDR_ANY) return message;
    std::uint32_t flags = filterDestination;
    nlattr* tuple = mnl_attr_nest_start(message, CTA_TUPLE_ORIG);
    nlattr* part = mnl_attr_nest_start(message, CTA_TUPLE_IP);
    mnl_attr_put_u32(message, CTA_IP_V4_DST, selection.destination);
    mnl_attr_nest_end(message, part);
    if (selection.protocol != 0) {
        flags |= filterProtocol;
        part = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
        mnl_attr_put_u8(message, CTA_PROTO_NUM, selection.protocol);
        if (selection.port != 0) {
            flags |= filterPort;
            mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(selection.port));
        }
        mnl_attr_nest_end(message, part);
    }
    mnl_attr_nest_end(message, tuple);
    nlattr* filter = mnl_attr_nest_start(message, filterAttribute);
    mnl_attr_put_u32(message, filterOriginal, flags);
    mnl_attr_nest_end(message, filter);
    return message;
}

void appendFlowRemoval(std::vector<char>& out, const Flow& flow, std::uint32_t sequence) {
    std::array<char, flowRequestBytes> buffer;
    nlmsghdr* message = putHeader(buffer.data(), IPCTNL_MSG_CT_DELETE);
    message->nlmsg_flags = NLM_F_REQUEST;
    message->nlmsg_seq = sequence;
    message->nlmsg_len += static_cast<std::uint32_t>(flow.name.size());
    out.insert(out.end(), buffer.data(), buffer.data() + (message->nlmsg_len - flow.name.size()));
    out.insert(out.end(), flow.name.begin(), flow.name.end());  // attributes are aligned, and so is their end
}

}  // namespace router
