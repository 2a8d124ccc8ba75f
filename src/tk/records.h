#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/names.h"

/// The records of the router's services: paths, and the fields beside the id and the disabled flag of every
/// object.
namespace tk {

namespace path {
inline Path hub() {
    return {program::hub};
}
inline Path interfaces() {
    return {program::network, 0};
}
inline Path addresses() {
    return {program::network, 1};
}
inline Path nat() {
    return {program::network, 5};
}
inline Path history() {
    return {program::history};
}
inline Path identity() {
    return {program::identity};
}
inline Path gateway() {
    return {program::gateway, 0};
}
}  // namespace path

// Interfaces.
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

// IPv4 addresses.
namespace addressfield {
constexpr std::uint32_t address = 1;           // be32
constexpr std::uint32_t interface = 5;         // u32: the interface's id
constexpr std::uint32_t actualInterface = 10;  // u32: read where `interface` is absent
}  // namespace addressfield

// Destination NAT rules. A has... flag says that the fields of its group are given.
namespace rulefield {
constexpr std::uint32_t dstPortFirst = 9;       // u32
constexpr std::uint32_t dstPortLast = 10;       // u32
constexpr std::uint32_t protocol = 11;          // u32: the IP protocol's number
constexpr std::uint32_t chain = 39;             // string
constexpr std::uint32_t action = 40;            // u32
constexpr std::uint32_t dstAddressFirst = 52;   // be32
constexpr std::uint32_t dstAddressLast = 53;    // be32
constexpr std::uint32_t hasProtocol = 404;      // bool
constexpr std::uint32_t hasDstPort = 406;       // bool
constexpr std::uint32_t hasDstAddress = 419;    // bool
constexpr std::uint32_t toAddressFirst = 1000;  // be32
constexpr std::uint32_t toAddressLast = 1001;   // be32
constexpr std::uint32_t toPortFirst = 1002;     // u32
constexpr std::uint32_t toPortLast = 1003;      // u32
constexpr std::uint32_t hasToAddress = 1006;    // bool
constexpr std::uint32_t hasToPort = 1007;       // bool
}  // namespace rulefield
constexpr const char* dstnatChain = "dstnat";
constexpr std::uint32_t destinationNat = 22;  // the action that there is
// Command: answers, with the fields of a new rule, whether a program would get it, and changes nothing.
constexpr std::uint32_t testRule = 2;

// The undo history.
namespace historyfield {
constexpr std::uint32_t request = 1;      // message[]: the request that was applied
constexpr std::uint32_t inverse = 2;      // message[]: the request that undoes it
constexpr std::uint32_t description = 3;  // string
constexpr std::uint32_t program = 4;      // u32: who handed the record in
constexpr std::uint32_t time = 5;         // u64: seconds since 1970
constexpr std::uint32_t path = 6;         // u32[]: of the handler that handed the record in
}  // namespace historyfield
// Command: the inverse of the last record goes to whoever recorded it, and the end of that is the answer, with the
// record's id and description. What the same handler records meanwhile is not kept, for it is the undoing itself.
constexpr std::uint32_t undoLast = 2;

// The gateway's settings and its "upnp interface" items.
namespace settingfield {
constexpr std::uint32_t enabled = 1;               // bool
constexpr std::uint32_t allowDisableExternal = 2;  // bool
constexpr std::uint32_t showDummyRule = 3;         // bool
}  // namespace settingfield
namespace itemfield {
constexpr std::uint32_t interface = 1;  // u32: the interface's id
constexpr std::uint32_t type = 2;       // u32: 1 external, 2 internal
}  // namespace itemfield

}  // namespace tk
