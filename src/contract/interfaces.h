#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tk/message.h"

/// The interfaces of the router, at {20, 0}.
namespace contract {

namespace interfacefield {
constexpr std::uint32_t type = 0x10001;         // u32: the kernel's hardware type, 1 is Ethernet
constexpr std::uint32_t flags = 0x10003;        // u32: any bit of goneFlags: it is gone
constexpr std::uint32_t index = 0x10004;        // u32: the kernel's index
constexpr std::uint32_t name = 0x10005;         // string: the kernel's name
constexpr std::uint32_t displayName = 0x10006;  // string: the alias, else the name
constexpr std::uint32_t running = 0x1000E;      // bool
// u64, these four, and only with the option withCounters.
constexpr std::uint32_t rxBytes = 0x100FC;
constexpr std::uint32_t txBytes = 0x100FD;
constexpr std::uint32_t rxPackets = 0x100FE;
constexpr std::uint32_t txPackets = 0x100FF;
}  // namespace interfacefield
constexpr std::uint32_t goneFlags = 0x82;
constexpr std::uint32_t ethernet = 1;

/// The traffic counters of an interface. A value.
struct InterfaceCounters {
    std::uint64_t receivedPackets = 0;
    std::uint64_t sentPackets = 0;
    std::uint64_t receivedBytes = 0;
    std::uint64_t sentBytes = 0;

    bool operator==(const InterfaceCounters&) const = default;
};

/// What the router tells of one interface. A value.
struct InterfaceRecord {
    std::uint32_t id = 0;
    std::uint32_t type = 0;
    std::uint32_t flags = 0;
    std::uint32_t index = 0;
    std::string name;
    std::optional<std::string> displayName;
    // Each is empty when the record does not hold it: then it is as before.
    std::optional<bool> disabled;
    std::optional<bool> running;
    std::optional<InterfaceCounters> counters;

    /// True when the interface is gone.
    bool isGone() const { return (flags & goneFlags) != 0; }

    /// The fields of a record; an empty value is left out.
    tk::message toMessage() const;
    /// Reads a record.
    static InterfaceRecord fromMessage(const tk::message& record);

    bool operator==(const InterfaceRecord&) const = default;
};

constexpr std::uint32_t withCounters = 256;          // option of a get: adds the counters
constexpr std::uint32_t listInterfaces = 1;          // command: the paged list
constexpr std::uint32_t interfaceChanged = 0x10004;  // notification: it is the record

// The side of the router that an interface is on.
namespace sidefield {
constexpr std::uint32_t interface = 1;  // u32, in the request: the interface's id
constexpr std::uint32_t side = 1;       // u32, in the reply: one of Side
constexpr std::uint32_t why = 2;        // string, in the reply: for people
}  // namespace sidefield
constexpr std::uint32_t tellSide = 2;  // command

enum class Side : std::uint32_t { neither = 0, inside = 1, outside = 2 };

/// What the router answers to tellSide. A value.
struct SideReply {
    Side side = Side::neither;
    std::string why;  // for people

    tk::message toMessage() const;
    /// A number that is no side reads as neither.
    static SideReply fromMessage(const tk::message& reply);

    bool operator==(const SideReply&) const = default;
};

}  // namespace contract
