#pragma once

#include <cstdint>

/// The IPv4 addresses of the router, at {20, 1}.
namespace contract {

namespace addressfield {
constexpr std::uint32_t address = 1;           // be32
constexpr std::uint32_t interface = 5;         // u32: the interface's id
constexpr std::uint32_t actualInterface = 10;  // u32: read where `interface` is absent
}  // namespace addressfield

}  // namespace contract
