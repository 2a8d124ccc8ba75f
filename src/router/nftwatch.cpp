#include "router/nftwatch.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <stddef.h>
#include <sys/socket.h>

#include <utility>

#include "router/netlinkattributes.h"
#include "router/nftnames.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int receiveBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 4096;  // more than the buffer holds, as each takes some 500 bytes of it
constexpr std::uint32_t group = 1U << (NFNLGRP_NFTABLES - 1);

// The table's name has the same number in what is told of tables, chains, rules, sets and elements.
constexpr std::uint16_t tableName = NFTA_TABLE_NAME;
static_assert(tableName == NFTA_CHAIN_TABLE && tableName == NFTA_RULE_TABLE && tableName == NFTA_SET_TABLE &&
              tableName == NFTA_SET_ELEM_LIST_TABLE);

constexpr AttributeRule tableRules[] = {{tableName, MNL_TYPE_NUL_STRING, 0}};

constexpr std::uint16_t typeOf(std::uint16_t message) {
    return static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | message);
}

/// True for what is told of the router's table, or of something in it.
bool isOfTable(const nlmsghdr& message) {
    if (message.nlmsg_type == typeOf(NFT_MSG_NEWGEN)) return false;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nfgenmsg)) return false;
    const auto* own = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message));
    return own->nfgen_family == NFPROTO_IPV4 &&
           NetlinkAttributes(message, sizeof *own, tableRules).text(tableName) == nft::table;
}

}  // namespace

bool NftWatch::open(std::uint32_t port, std::string& reason) {
    ownPort = port;
    if (!socket.open(NETLINK_NETFILTER, group) || !ignoreOwnElements()) {
        reason = "nf_tables: " + tk::errorText();
        return false;
    }
    socket.setBuffers(receiveBytes, receiveBytes);
    watch.start<NftWatch, &NftWatch::ready>(socket.descriptor(), *this, tk::readable);
    return true;
}

/// The owner's elements may be many thousands in a moment, and would leave no room for what others do. A
/// datagram is of one transaction, so that its first message tells whose it is. Those that begin with
/// something else are let through: the owner's making of the table is to be seen.
bool NftWatch::ignoreOwnElements() const {
    // The filter reads numbers in network order, where the headers have them in that of the host.
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(nlmsghdr, nlmsg_pid)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ntohl(ownPort), 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ntohs(typeOf(NFT_MSG_NEWSETELEM)), 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ntohs(typeOf(NFT_MSG_DELSETELEM)), 1, 0),
        BPF_STMT(BPF_RET | BPF_K, 0xffffffff),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program{sizeof steps / sizeof *steps, steps};
    return ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

void NftWatch::ready(int, std::uint32_t) {
    bool isLost = false;
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = socket.receive(0, [this](const nlmsghdr& message) { take(message); });
        // What waits is older than what was lost, and proves nothing any more.
        isLost = isLost || result == NetlinkSocket::Received::lost;
        if (result == NetlinkSocket::Received::nothing || result == NetlinkSocket::Received::failed) break;
    }
    if (std::exchange(isChanged, false) || isLost) owner.tableChanged();
}

void NftWatch::take(const nlmsghdr& message) {
    if (!isOfTable(message)) return;
    if (message.nlmsg_pid != ownPort)
        isChanged = true;
    else if (message.nlmsg_type == typeOf(NFT_MSG_NEWTABLE))
        isChanged = false;  // the notifications have the order of the changes
}

}  // namespace router
