#pragma once

#include <cstdint>

#include "firewall/batch.h"

namespace router {

/// Appends the rules of the output chain, and of the one for what guarded users send: inside, and not to the
/// router itself.
void addGuard(NftBatch& batch);
/// Appends the rules of the output chain for IPv6, in which nothing is inside.
void addGuardOfIp6(NftBatch& batch);

/// Append the rules of the input chain, each with the number that its set has in the transaction.
/// `rate`: packets a second from one source. `limit`: connections of one source.
void addSearchOrigin(NftBatch& batch);
void addSearchLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addRequestLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate);
void addConnectionLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t limit);

}  // namespace router
