#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "contract/natrules.h"
#include "firewall/batch.h"
#include "links/prefix.h"
#include "netlink/socket.h"

// The sets of the router's tables, and what is in them.

namespace firewall {

using contract::NatKey;
using contract::NatTarget;
using contract::NatTraffic;

/// What the kernel holds for one enabled rule. A value.
struct Element {
    NatKey key;
    NatTarget target;

    bool operator==(const Element&) const = default;
};

/// The numbers of the sets within their transaction.
namespace setnumber {

constexpr std::uint32_t map = 1, hairpin = 2, inside = 3, users = 4;
constexpr std::uint32_t searches = 5, requests = 6, connections = 7;
constexpr std::uint32_t live = 8, usersOfIp6 = 9;

}  // namespace setnumber

// Append an empty set.

void addMap(Batch& batch);
/// The kernel gives each element a counter of its own.
void addLiveSet(Batch& batch);
void addHairpinSet(Batch& batch);
void addInsideSet(Batch& batch);
void addUserSet(Batch& batch, std::uint8_t family);
/// A set that the rules themselves fill with the sources of packets.
void addSourceSet(Batch& batch, const char* name, std::uint32_t number, std::uint32_t flags);

/// Appends the removal of a set, which no rule may look at any more.
void removeSet(Batch& batch, const char* name);

/// Appends users to those whose packets are guarded.
/// `alsoIp6`: true when the table for IPv6 exists; the users are added there too.
void addUsers(Batch& batch, std::span<const std::uint32_t> users, bool alsoIp6);
/// Appends users to those in the table for IPv6 alone.
void addUsersOfIp6(Batch& batch, std::span<const std::uint32_t> users);

/// What to do with the entries of a set.
enum class Change : std::uint8_t { add, remove };

// Append the addition or removal of entries of a set.

/// Elements of the map dstnat.
void changeElements(Batch& batch, Change change, std::span<const Element> elements);
/// Elements of the set live.
void changeLive(Batch& batch, Change change, std::span<const Element> elements);
/// Interfaces in the set for hairpin connections, by index.
void changeHairpins(Batch& batch, Change change, std::span<const std::uint32_t> indexes);
/// Ranges of addresses in the set inside.
void changeInside(Batch& batch, Change change, std::span<const links::AddressRange> ranges);

/// What the elements of the set live have counted, in their order.
/// Errors: 0 for an element that is not in the set, or of which the kernel does not tell.
[[nodiscard]] std::vector<NatTraffic> readTraffic(netlink::Socket& socket, std::span<const Element> elements);

}  // namespace firewall
