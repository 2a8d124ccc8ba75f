#pragma once

#include <cstdint>

/// The destination NAT rules, at {20, 5}.
namespace contract {

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

}  // namespace contract
