#pragma once

#include <cstdint>
#include <vector>

#include "contract/mappings.h"
#include "ctl/json.h"
#include "ctl/session.h"

namespace ctl {

/// A port mapping of the gateway, with the traffic that used it, in both directions.
struct Mapping : contract::MappingRecord {
    std::uint64_t packets = 0;  // since its rule took effect
    std::uint64_t bytes = 0;
};

/// All mappings, by interface, then port, then protocol. The gateway knows the mappings, and the router the
/// traffic of their rules; a rule that went in between counts as unused.
/// Errors: throws Failure.
[[nodiscard]] std::vector<Mapping> mappingsOf(Session& session);

/// The last mappings that hosts asked for and did not get, the oldest first.
/// Errors: throws Failure.
[[nodiscard]] std::vector<contract::MappingRefusal> refusalsOf(Session& session);

/// A mapping as scripts see it.
[[nodiscard]] Json mappingToJson(const Mapping& mapping);

}  // namespace ctl
