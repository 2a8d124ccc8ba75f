#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/message.h"

/// The port mappings of the gateway, for the administrator, at {80, 1}. Nothing can be changed there.
namespace contract {

namespace mappingfield {
constexpr std::uint32_t interface = 1;       // u32: the id of the external interface
constexpr std::uint32_t externalPort = 2;    // u32
constexpr std::uint32_t protocol = 3;        // u32: the IP protocol's number
constexpr std::uint32_t internalClient = 4;  // be32
constexpr std::uint32_t internalPort = 5;    // u32
constexpr std::uint32_t enabled = 6;         // bool
constexpr std::uint32_t description = 7;     // string: the control point's text
constexpr std::uint32_t requestedBy = 8;     // be32: the last host that asked for it
constexpr std::uint32_t since = 9;           // u64: seconds since 1970
}  // namespace mappingfield

/// One port mapping. A value.
/// Byte order: addresses in network order, ports in host order.
struct MappingRecord {
    std::uint32_t id = 0;         // of its rule at {20, 5}
    std::uint32_t interface = 0;  // the id of the external interface
    std::uint16_t externalPort = 0;
    std::uint8_t protocol = 0;  // the IP protocol's number
    std::uint32_t internalClient = 0;
    std::uint16_t internalPort = 0;
    bool enabled = false;
    std::string description;
    std::uint32_t requestedBy = 0;  // the last host that asked for it
    std::uint64_t since = 0;        // when it was made; seconds since 1970

    /// All fields of a record.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads a record. Absent fields keep their defaults; a number too large for its member is cut to its low
    /// bits.
    [[nodiscard]] static MappingRecord fromMessage(const tk::message& record);

    bool operator==(const MappingRecord&) const = default;
};

/// Command: the last mappings that the LAN asked for and did not get, as records in tk::field::objects, the
/// oldest first.
constexpr std::uint32_t recentRefusals = 2;
constexpr std::size_t refusalLimit = 32;          // so many are kept
constexpr std::size_t refusalReasonLength = 200;  // bytes; a longer reason is cut

namespace refusalfield {
constexpr std::uint32_t time = 1;            // u64: of the last time; seconds since 1970
constexpr std::uint32_t requester = 2;       // be32
constexpr std::uint32_t externalPort = 3;    // u32
constexpr std::uint32_t protocol = 4;        // u32: the IP protocol's number
constexpr std::uint32_t internalClient = 5;  // be32
constexpr std::uint32_t internalPort = 6;    // u32
constexpr std::uint32_t code = 7;            // u32: the UPnP error code that was answered
constexpr std::uint32_t reason = 8;          // string: for people
constexpr std::uint32_t count = 9;           // u32: how many equal ones came in a row
}  // namespace refusalfield

/// One refused mapping. A value.
/// Byte order: addresses in network order, ports in host order.
struct MappingRefusal {
    std::uint64_t time = 0;       // of the last time; seconds since 1970
    std::uint32_t requester = 0;  // the host that asked
    std::uint16_t externalPort = 0;
    std::uint8_t protocol = 0;  // the IP protocol's number
    std::uint32_t internalClient = 0;
    std::uint16_t internalPort = 0;
    std::uint32_t code = 0;   // the UPnP error code that was answered
    std::string reason;       // for people
    std::uint32_t count = 1;  // how many equal ones came in a row

    /// All fields of a record.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads a record. Absent fields keep their defaults; a number too large for its member is cut to its low
    /// bits.
    [[nodiscard]] static MappingRefusal fromMessage(const tk::message& record);

    bool operator==(const MappingRefusal&) const = default;
};

}  // namespace contract
