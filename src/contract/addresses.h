#pragma once

#include <cstdint>
#include <optional>

#include "tk/message.h"

/// The IPv4 addresses of the router, at {20, 1}.
namespace contract {

namespace addressfield {
constexpr std::uint32_t address = 1;           // be32
constexpr std::uint32_t interface = 5;         // u32: the interface's id
constexpr std::uint32_t actualInterface = 10;  // u32: read when `interface` is absent
}  // namespace addressfield

/// One IPv4 address of the router. A value.
struct AddressRecord {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> address;  // network order; changes may omit it
    std::uint32_t interface = 0;           // its id; 0: not given
    bool disabled = false;
    bool isDeleted = false;

    /// The fields of a record; an empty value is left out.
    tk::message toMessage() const;
    /// Reads a record.
    static AddressRecord fromMessage(const tk::message& record);

    bool operator==(const AddressRecord&) const = default;
};

}  // namespace contract
