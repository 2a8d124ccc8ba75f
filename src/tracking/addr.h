#pragma once

#include <cstdint>

/// One of the router's IPv4 addresses.
struct Addr {
    std::uint32_t address = 0;    // network order
    std::uint32_t interface = 0;  // id of the interface that has it
    bool stale = false;           // during a full walk: not seen yet; behind it: gone
    bool disabled = false;        // tracked, but never used
};
