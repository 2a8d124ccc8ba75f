#pragma once

#include <cstdint>

#include "firewall/batch.h"

namespace firewall {

/// The names in the router's tables.
namespace nft {

constexpr const char* table = "tk";
constexpr const char* map = "dstnat";
constexpr const char* live = "live";
constexpr const char* hairpin = "hairpin";
constexpr const char* prerouting = "prerouting";
constexpr const char* postrouting = "postrouting";
constexpr const char* forward = "forward";
constexpr const char* ended = "ended";
constexpr const char* missed = "missed";

// For the guard.
constexpr const char* guarded = "guarded";
constexpr const char* inside = "inside";
constexpr const char* daemon = "daemon";
constexpr const char* searches = "searches";
constexpr const char* requests = "requests";
constexpr const char* connections = "connections";
constexpr const char* output = "output";
constexpr const char* input = "input";

}  // namespace nft

/// The group of the kernel's packet log that shows the flows whose entries must go.
constexpr std::uint16_t flowLogGroup = 29803;

/// Appends the only rule of the prerouting chain: a connection to one of the router's addresses goes where
/// the map says, and bears the table's label from then on.
void addTranslation(Batch& batch);

/// Appends the only rule of the postrouting chain: a translated connection that leaves by the interface it
/// came in by gets the router's address as its source.
void addHairpinReturn(Batch& batch);

/// Appends the rules of the forward chain, which end a connection with the label but without a live rule, and
/// count the packets of the others with the label.
void addFlowEnd(Batch& batch);
/// Appends the rule of the input chain that ends a translated connection whose target has become the router
/// itself.
void addStrayEnd(Batch& batch);

/// Appends the rules of the chain for flows that have ended.
void addFarewell(Batch& batch);

/// Appends the rules of the chain for UDP flows that reach the router although their port is mapped.
void addMissedFlows(Batch& batch);

/// Appends the rules of the output chain and of the chain for what guarded users send: they reach hosts
/// inside, but not the router itself.
void addGuard(Batch& batch);
/// Appends the rules of the output chain for IPv6, in which nothing is inside.
void addGuardOfIp6(Batch& batch);

/// Append the rules of the input chain.
/// `setNumber`: the number of the rule's set in the transaction.
/// `rate`: packets a second from one source.
/// `limit`: connections of one source.
void addSearchOrigin(Batch& batch);
void addSearchLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addRequestLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addConnectionLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t limit);

}  // namespace firewall
