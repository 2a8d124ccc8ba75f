#pragma once

#include "router/nftbatch.h"

namespace router {

/// Appends the one rule of the prerouting chain: the destination is what the map says.
void addTranslation(NftBatch& batch);

/// Appends the one rule of the postrouting chain: a translated connection that leaves by the interface it
/// came in by gets the router's address as its source.
void addHairpinReturn(NftBatch& batch);

}  // namespace router
