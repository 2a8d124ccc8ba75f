#pragma once

#include <cstdint>

#include "router/nftbatch.h"

namespace router {

/// Appends the rules of the output chain: a guarded user's process does not connect to the router itself, nor
/// out of an interface that a default route leads out of.
void addConnectionGuard(NftBatch& batch);

/// Append the rules of the input chain, each with the number that its set has in the transaction.
/// `rate`: packets a second from one source. `limit`: connections of one source.
void addSearchLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addRequestLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addConnectionLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t limit);

}  // namespace router
