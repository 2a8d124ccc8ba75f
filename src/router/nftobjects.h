#pragma once

#include <cstdint>
#include <set>
#include <span>

#include "router/guardconfig.h"
#include "router/natrule.h"
#include "router/nftbatch.h"

namespace router {

// The pieces of the router's nf_tables table, each appended to a transaction:
//
//     table ip tk {
//         flags owner
//         map dstnat { type ipv4_addr . inet_proto . inet_service : ipv4_addr . inet_service }
//         set hairpin { type iface_index . iface_index }
//         set uplinks { type iface_index }
//         chain prerouting {
//             type nat hook prerouting priority dstnat
//             dnat ip to ip daddr . meta l4proto . th dport map @dstnat
//         }
//         chain postrouting {
//             type nat hook postrouting priority srcnat
//             ct status dnat iif . oif @hairpin oif != @uplinks ct original ip daddr . meta l4proto .
//             ct original proto-dst @dstnat masquerade
//         }
//     }
//
// and, for the guard, what the configuration asks for of
//
//         set guarded { type uid }
//         chain output {
//             type filter hook output priority filter
//             tcp flags syn / fin,syn,rst,ack meta skuid @guarded fib daddr type local reject with tcp reset
//             tcp flags syn / fin,syn,rst,ack meta skuid @guarded oif @uplinks reject with tcp reset
//         }
//         chain input {
//             type filter hook input priority filter
//             udp dport 1900 update @searches { ip saddr timeout 1m limit rate over 20/second burst 20
//             packets } drop tcp dport 2828 tcp flags syn / fin,syn,rst,ack update @requests { ... } reject
//             with tcp reset tcp dport 2828 tcp flags syn / fin,syn,rst,ack add @connections { ip saddr ct
//             count over 50 } reject with tcp reset
//         }
//
// The second chain is for a host that reaches another one of its own network by the router's external
// address: the answer must come back through the router. The set holds each interface paired with itself.
// Where a default route leads out no such host is: when its own network is down, the packets to a rule's
// target may be routed there, and the router must not lend its address to what comes from outside and goes
// back there.

/// Appends the removal of the table, whether it is there or not; `owned` when it is the socket's own.
void removeTable(NftBatch& batch, bool owned);
/// Appends the table with everything in it but elements.
void createTable(NftBatch& batch, bool owned);
/// Appends what the guard needs in the table, but no element.
void createGuard(NftBatch& batch, const GuardConfig& config);
/// Appends users to those whose connections are guarded.
void addUsers(NftBatch& batch, const std::set<std::uint32_t>& users);
/// Appends the addition or removal of interfaces that a default route leads out of.
void addUplinks(NftBatch& batch, const std::set<std::uint32_t>& indexes);
void removeUplinks(NftBatch& batch, const std::set<std::uint32_t>& indexes);
/// Appends the addition or removal of map elements.
void addElements(NftBatch& batch, std::span<const NatElement> elements);
void removeElements(NftBatch& batch, std::span<const NatElement> elements);
/// Appends the addition or removal of interfaces in the set for hairpin connections.
void addHairpins(NftBatch& batch, const std::set<std::uint32_t>& indexes);
void removeHairpin(NftBatch& batch, std::uint32_t index);

}  // namespace router
