#include "router/otherdnat.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include "router/netlinkattributes.h"
#include "router/nftnames.h"

namespace router {

namespace {

constexpr const char* oldTablesPath = "/proc/net/ip_tables_names";  // one name in each line
constexpr std::string_view natTable = "nat\n";

constexpr AttributeRule chainRules[] = {
    {NFTA_CHAIN_TABLE, MNL_TYPE_NUL_STRING, 0},
    {NFTA_CHAIN_TYPE, MNL_TYPE_NUL_STRING, 0},
    {NFTA_CHAIN_HOOK, MNL_TYPE_NESTED, 0},
};

/// True for the hooks at which destinations are translated: those of what arrives, and of what is sent.
bool translatesDestinations(const nlattr* hook) {
    if (!hook) return false;
    const char* end = static_cast<const char*>(mnl_attr_get_payload(hook)) + mnl_attr_get_payload_len(hook);
    const auto* part = static_cast<const nlattr*>(mnl_attr_get_payload(hook));
    for (; mnl_attr_ok(part, static_cast<int>(end - reinterpret_cast<const char*>(part)));
         part = mnl_attr_next(part))
        if (mnl_attr_get_type(part) == NFTA_HOOK_HOOKNUM && mnl_attr_validate(part, MNL_TYPE_U32) == 0) {
            const std::uint32_t number = ntohl(mnl_attr_get_u32(part));
            return number == NF_INET_PRE_ROUTING || number == NF_INET_LOCAL_OUT;
        }
    return false;
}

/// True for a chain, not the router's, that can translate destinations.
bool isOtherDnat(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nfgenmsg)) return false;
    const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message));
    const NetlinkAttributes chain(message, sizeof *header, chainRules);
    const bool isIpv4 = header->nfgen_family == NFPROTO_IPV4;
    if (!isIpv4 && header->nfgen_family != NFPROTO_INET) return false;
    if (chain.text(NFTA_CHAIN_TYPE) != "nat" || (isIpv4 && chain.text(NFTA_CHAIN_TABLE) == nft::table))
        return false;
    return translatesDestinations(chain.find(NFTA_CHAIN_HOOK));
}

bool mayBeInChains() {
    NetlinkSocket socket;
    if (!socket.open(NETLINK_NETFILTER)) return true;
    std::array<char, 64> buffer;
    nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETCHAIN);
    auto* own = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    own->nfgen_family = NFPROTO_UNSPEC;
    own->version = NFNETLINK_V0;
    bool found = false;
    const NetlinkResult result = socket.dump(
        *request, [&found] { found = false; },
        [&found](const nlmsghdr& message) { found = found || isOtherDnat(message); });
    return found || !result.ok();
}

}  // namespace

OtherDnat::OtherDnat() : oldTables(::open(oldTablesPath, O_RDONLY | O_CLOEXEC)) {
    hasOldTables = oldTables.isOpen() || errno != ENOENT;
}

bool OtherDnat::mayBe() const {
    return mayBeInOldTables() || mayBeInChains();
}

bool OtherDnat::mayBeInOldTables() const {
    if (!hasOldTables) return false;
    std::array<char, 1024> names;  // of a handful of tables
    const ssize_t size = ::pread(oldTables.get(), names.data(), names.size(), 0);
    if (size < 0) return true;
    const std::string_view text(names.data(), static_cast<std::size_t>(size));
    return text.starts_with(natTable) || text.find("\n" + std::string(natTable)) != std::string_view::npos;
}

}  // namespace router
