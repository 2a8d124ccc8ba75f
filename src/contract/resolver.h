#pragma once

#include <cstdint>

/// The resolver of host names, at {14}.
namespace contract {

namespace resolvefield {
constexpr std::uint32_t name = 3;     // string, in the request: a host name
constexpr std::uint32_t address = 4;  // be32, in the reply
}  // namespace resolvefield
constexpr std::uint32_t resolveName = 3;  // command

}  // namespace contract
