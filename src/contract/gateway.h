#pragma once

#include <cstdint>

/// The gateway's settings and its "upnp interface" items, at {80, 0}.
namespace contract {

namespace settingfield {
constexpr std::uint32_t enabled = 1;               // bool
constexpr std::uint32_t allowDisableExternal = 2;  // bool
constexpr std::uint32_t showDummyRule = 3;         // bool
}  // namespace settingfield
namespace itemfield {
constexpr std::uint32_t interface = 1;  // u32: the interface's id
constexpr std::uint32_t type = 2;       // u32: 1 external, 2 internal
}  // namespace itemfield

}  // namespace contract
