#pragma once

#include <cstdint>

/// The interfaces of the router, at {20, 0}.
namespace contract {

namespace interfacefield {
constexpr std::uint32_t type = 0x10001;   // u32: the kernel's type of hardware, 1 is Ethernet
constexpr std::uint32_t flags = 0x10003;  // u32: any bit of goneFlags set means that the interface is gone
constexpr std::uint32_t index = 0x10004;  // u32: the kernel's index
constexpr std::uint32_t name = 0x10005;   // string: the kernel's name
constexpr std::uint32_t displayName = 0x10006;  // string: the alias, else the name
constexpr std::uint32_t running = 0x1000E;      // bool
constexpr std::uint32_t rxBytes = 0x100FC;      // u64, as the next three: with the option withCounters alone
constexpr std::uint32_t txBytes = 0x100FD;
constexpr std::uint32_t rxPackets = 0x100FE;
constexpr std::uint32_t txPackets = 0x100FF;
}  // namespace interfacefield
constexpr std::uint32_t goneFlags = 0x82;
constexpr std::uint32_t ethernet = 1;
constexpr std::uint32_t withCounters = 256;          // option of a get: adds the counters
constexpr std::uint32_t listInterfaces = 1;          // command: the paged list
constexpr std::uint32_t interfaceChanged = 0x10004;  // notification: the message itself is the record

// The side of the router that an interface stands on.
namespace sidefield {
constexpr std::uint32_t interface = 1;  // u32, in the request: the interface's id
constexpr std::uint32_t side = 1;       // u32, in the reply: 1 inside, 2 outside, 0 neither
constexpr std::uint32_t why = 2;        // string, in the reply: for people
}  // namespace sidefield
constexpr std::uint32_t tellSide = 2;  // command
constexpr std::uint32_t outside = 2;

}  // namespace contract
