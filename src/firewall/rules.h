#pragma once

#include <cstdint>

#include "firewall/batch.h"

namespace router {

/// The group of the kernel's packet log that tells of the flows whose entry is to go.
constexpr std::uint16_t flowLogGroup = 29803;

/// Appends the one rule of the prerouting chain: a connection to one of the router's addresses goes where the
/// map says, and bears the table's label from then on.
void addTranslation(NftBatch& batch);

/// Appends the one rule of the postrouting chain: a translated connection that leaves by the interface it
/// came in by gets the router's address as its source.
void addHairpinReturn(NftBatch& batch);

/// Appends the one rule of the forward chain: what bears the label and is not of a live rule has ended.
void addFlowEnd(NftBatch& batch);
/// Appends a rule to the forward and one to the input chain: a translated connection whose target is not
/// inside any more, or has become the router itself, ends.
void addStrayEnd(NftBatch& batch);

/// Appends the rules of the chain for flows that have ended.
void addFarewell(NftBatch& batch);

/// Appends the rules of the chain for UDP flows that reach the router although their port is mapped.
void addMissedFlows(NftBatch& batch);

}  // namespace router
