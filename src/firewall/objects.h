#pragma once

#include <cstdint>
#include <span>

#include "contract/natrules.h"
#include "firewall/batch.h"
#include "links/prefix.h"

namespace firewall {

using contract::NatKey;
using contract::NatTarget;

/// What the kernel holds for one enabled rule. A value.
struct Element {
    NatKey key;
    NatTarget target;

    bool operator==(const Element&) const = default;
};

/// What the configuration says of the guard around the gateway daemon. In the limits 0 stands for none.
/// A value.
struct GuardConfig {
    bool limitsConnections = true;          // of the daemon: whatever it sends goes to hosts inside
    std::uint32_t searchesPerSecond = 200;  // datagrams to UDP 1900 from one source
    std::uint32_t requestsPerSecond = 0;    // connections to TCP 2828 from one source
    std::uint32_t connections = 0;          // that one source may have with TCP 2828 at once

    bool operator==(const GuardConfig&) const = default;
};

// The pieces of the router's nf_tables table, each appended to a transaction:
//
//     table ip tk {
//         flags owner
//         map dstnat { type ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service }
//         set live { type ipv4_addr . inet_proto . inet_service . ipv4_addr . inet_service }
//         set hairpin { type iface_index . iface_index }
//         chain prerouting {
//             type nat hook prerouting priority dstnat + 10
//             fib daddr type local <look up ip daddr . meta l4proto . th dport in dstnat>
//                 ct label set 116 dnat to <what was found>
//         }
//         chain forward {
//             type filter hook forward priority filter - 10
//             ct label 116 ct original ip daddr . ct protocol . ct original proto-dst .
//                 ct reply ip saddr . ct reply proto-src != @live goto ended
//             ct label 116 ct reply ip saddr != @inside goto ended
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
// and, for the guard, what the configuration asks for of
//
//         set guarded { type uid }
//         set inside { type ipv4_addr; flags interval }
//         chain output {
//             type filter hook output priority filter
//             meta skuid @guarded jump daemon
//         }
//         chain daemon {
//             fib daddr type != local ip daddr @inside accept
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
// Our chain comes after those of the usual priority, so that a forward which somebody else made wins. What
// it translates bears a label, and the chain at forward lets it pass only as long as its rule is live: flows
// end with their rule, and those that a former process left end with the rule that they had. ended and missed
// also tell which entries of the kernel's connection table must go for a next packet to find its way.
//
// The chain postrouting is for a host that reaches another one of its own network by the router's external
// address: the answer must come back through the router. The set holds each inside interface paired with
// itself. Outside no such host is: when its own network is down, the packets to a rule's target may be routed
// there, and the router must not lend its address to what comes from outside and goes back there.

/// NFT_TABLE_F_OWNER, newer than the headers may be: nobody else can change the table.
constexpr std::uint32_t ownerFlag = 0x2;

/// Appends the table by itself.
void addTable(Batch& batch, std::uint32_t flags, std::uint8_t family = nft::ip4);
/// Appends a chain that packets come to at a hook.
void addChain(Batch& batch, const char* name, const char* type, std::uint32_t hook, std::int32_t priority,
              std::uint8_t family = nft::ip4);
/// Appends the removal of the table, whether it is there or not; `isOurs` when it is the socket's own.
void removeTable(Batch& batch, bool isOurs, std::uint8_t family = nft::ip4);
/// Appends the table with everything in it but elements, and with a chain at forward that is still empty:
/// addFlowEnd() fills it, when the elements of all rules are there.
void createTable(Batch& batch);
/// Appends what the guard needs in the table, but no element.
void createGuard(Batch& batch, const GuardConfig& config);
/// Appends the table for IPv6.
void createGuardOfIp6(Batch& batch);
/// Appends users to those whose packets are guarded; in the table for IPv6 as well where there is one.
void addUsers(Batch& batch, std::span<const std::uint32_t> users, bool alsoIp6);

/// What is done with what a set holds.
enum class Change : std::uint8_t { add, remove };

// Append the addition or removal of entries of a set.

/// Elements of the map, and of what is live.
void changeElements(Batch& batch, Change change, std::span<const Element> elements);
/// Interfaces, by index, in the set for hairpin connections.
void changeHairpins(Batch& batch, Change change, std::span<const std::uint32_t> indexes);
/// Ranges of inside addresses.
void changeInside(Batch& batch, Change change, std::span<const links::AddressRange> ranges);

}  // namespace firewall
