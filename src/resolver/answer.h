#pragma once

#include <cstdint>
#include <string>

namespace resolver {

/// What is known of a name: its address, or why there is none. A value.
struct Answer {
    std::uint32_t address = 0;          // network order; 0: none
    std::uint32_t lifetimeSeconds = 0;  // how long it may be used again; 0: not at all
    std::uint32_t errorCode = 0;        // without an address: one of tk::error, and a text for people
    std::string errorText;

    bool operator==(const Answer&) const = default;
};

}  // namespace resolver
