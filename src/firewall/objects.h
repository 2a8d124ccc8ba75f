#pragma once

#include <cstdint>

#include "firewall/batch.h"

namespace firewall {

/// What the configuration says about the guard around the gateway daemon. A limit of 0 means none. A value.
struct GuardConfig {
    bool limitsConnections = true;          // the daemon can send only to hosts inside
    std::uint32_t searchesPerSecond = 200;  // datagrams to UDP 1900 from one source
    std::uint32_t requestsPerSecond = 0;    // connections to TCP 2828 from one source
    std::uint32_t connections = 0;          // at once from one source to TCP 2828

    bool operator==(const GuardConfig&) const = default;
};

// The pieces of the router's nf_tables table, each appended to a transaction:
//
//     table ip tk {
//         flags owner
//         map dstnat { type ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service }
//         set live {
//             type ipv4_addr . inet_proto . inet_service . ipv4_addr . inet_service
//             counter
//         }
//         set hairpin { type iface_index . iface_index }
//         chain prerouting {
//             type nat hook prerouting priority dstnat + 10
//             fib daddr type local <look up ip daddr . meta l4proto . th dport in dstnat>
//                 ct label set 116 dnat to <what was found>
//         }
//         chain forward {
//             type filter hook forward priority filter - 10
//             ct status ! dnat accept
//             ct original ip daddr . ct protocol . ct original proto-dst .
//                 ct reply ip saddr . ct reply proto-src @live accept
//             ct label 116 goto ended
//         }
//         chain ended {
//             ct direction original limit rate 1000/second <destination as it came>
//                 log group 29803 <destination as it was>
//             meta l4proto tcp reject with tcp reset
//             drop
//         }
//         chain missed {
//             type filter hook input priority filter - 10
//             <UDP from outside, first packet of a flow, not translated, in dstnat> ct label set 107
//             <UDP from outside, later packet, not translated, ct label not 107, in dstnat>
//                 limit rate 1000/second log group 29803
//             ct label 116 goto ended
//         }
//         chain postrouting {
//             type nat hook postrouting priority srcnat
//             ct status dnat iif . oif @hairpin
//                 ct original ip daddr . meta l4proto . ct original proto-dst @dstnat masquerade
//         }
//     }
//
// and, for the guard, as far as the configuration asks for it,
//
//         set guarded { type uid }
//         set inside { type ipv4_addr; flags interval }
//         chain output {
//             type filter hook output priority filter
//             meta skuid @guarded jump daemon
//         }
//         chain daemon {
//             fib daddr type != local oif . oif @hairpin ip daddr @inside accept
//             ip daddr 239.255.255.250 udp dport 1900 oif . oif @hairpin accept
//             meta l4proto tcp reject with tcp reset
//             reject with icmp admin-prohibited
//         }
//         chain input {
//             type filter hook input priority filter
//             udp dport 1900 iif . iif @hairpin ip saddr != @inside drop
//             udp dport 1900 update @searches { ip saddr timeout 1m limit rate over 200/second ... } drop
//             tcp dport 2828 <SYN> update @requests { ... } reject with tcp reset
//             tcp dport 2828 <SYN> add @connections { ip saddr ct count over 50 } reject with tcp reset
//         }
//
// with a table for IPv6, in which nothing is inside:
//
//     table ip6 tk {
//         flags owner
//         set guarded { type uid }
//         chain output {
//             type filter hook output priority filter
//             meta skuid @guarded meta l4proto tcp reject with tcp reset
//             meta skuid @guarded reject with icmpv6 admin-prohibited
//         }
//     }
//
// Our chain comes after those of the usual priority, so a forward that somebody else made wins. Connections
// that our chain translates bear a label, and the chain at forward lets them pass only while their rule is
// live. So flows end with their rule, and flows left by an earlier process end unless their rule is back.
// Where targets are checked, only rules whose target is inside are live: each packet of a flow passes here,
// and one look-up is enough. The element that it finds counts the packet; a look-up that is inverted would
// not count. The label is looked at only afterwards, as that costs more than the status: so a connection that
// another table translates to where a live rule leads counts for that rule. Other tables may still drop what
// is accepted here. The chains ended and missed also log which entries must leave the kernel's
// connection table, so that the next packet takes the right way.
//
// The chain postrouting serves a host that reaches another one in its own network by the router's external
// address: the answer must come back through the router. The set hairpin pairs each inside interface with
// itself. Outside interfaces are left out. When the network of a rule's target is down, packets to the target
// may be routed outside, and the router must not lend its address to packets that come from outside and go
// back there.

/// NFT_TABLE_F_OWNER, newer than the headers may be: nobody else can change the table.
constexpr std::uint32_t ownerFlag = 0x2;

/// Appends the table itself, with nothing in it.
void addTable(Batch& batch, std::uint32_t flags, std::uint8_t family = nft::ip4);
/// Appends a chain that a hook sends packets to.
void addChain(Batch& batch, const char* name, const char* type, std::uint32_t hook, std::int32_t priority,
              std::uint8_t family = nft::ip4);
/// Appends the removal of the table, whether it exists or not.
/// `isOurs`: true when the batch's socket owns the table.
void removeTable(Batch& batch, bool isOurs, std::uint8_t family = nft::ip4);
/// Appends the table with everything in it except elements. The chain at forward stays empty until the
/// elements of all rules are there; then addFlowEnd() fills it.
void createTable(Batch& batch);
/// A table without a guard.
constexpr GuardConfig noGuard{false, 0, 0, 0};
/// Appends what turns one guard of the table into another, except elements. What both have stays, with its
/// elements: in one transaction no packet finds the guard open. The set of users is new, and empty, when
/// only `to` limits connections.
void changeGuard(Batch& batch, const GuardConfig& from, const GuardConfig& to);
/// Appends the rules of the chain missed in the place of those that it has.
void resetMissedFlows(Batch& batch);
/// Appends the table for IPv6.
void createGuardOfIp6(Batch& batch);

}  // namespace firewall
