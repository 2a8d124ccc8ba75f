#pragma once

#include <cstdint>
#include <optional>

#include "tk/message.h"

/// The IPv4 addresses of the router, at {20, 1}.
namespace contract {

namespace addressfield {
constexpr std::uint32_t address = 1;           // be32
constexpr std::uint32_t interface = 5;         // u32: the interface's id
constexpr std::uint32_t actualInterface = 10;  // u32: read where `interface` is absent
}  // namespace addressfield

/// One IPv4 address of the router. A value.
struct AddressRecord {
    std::uint32_t id = 0;
    std::optional<std::uint32_t> address;  // in network order; a change may leave it out
    std::uint32_t interface = 0;           // its id; 0: not told
    bool disabled = false;
    bool isDeleted = false;

    /// What is empty is left out.
    tk::message toMessage() const;
    static AddressRecord fromMessage(const tk::message& record);

    bool operator==(const AddressRecord&) const = default;
};

}  // namespace contract
