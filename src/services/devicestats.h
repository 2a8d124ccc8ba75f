#pragma once

#include <cstdint>

/// The traffic counters of an interface. Each keeps the low 32 bits of the router's counter, and so wraps at
/// 2^32.
struct DeviceStats {
    std::uint32_t rxPackets = 0;
    std::uint32_t txPackets = 0;
    std::uint32_t rxBytes = 0;
    std::uint32_t txBytes = 0;
};

/// Asks the router for the counters of the interface with the bus object `deviceId`.
/// Errors: logged; all counters are 0 then.
DeviceStats getDeviceStats(std::uint32_t deviceId);
