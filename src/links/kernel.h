#pragma once

#include <cstdint>
#include <string>
#include <tuple>

#include "contract/interfaces.h"
#include "tk/status.h"

namespace links {

/// A network interface as the kernel describes it. A value.
struct Link {
    std::uint32_t index = 0;
    std::string name;
    std::string alias;
    std::uint32_t hardwareType = 0;  // ARPHRD_...
    std::uint32_t flags = 0;         // IFF_...
    // Index of the device that carries its packets; 0: none, or one in another network namespace.
    std::uint32_t lower = 0;
    // Index of the bridge or bond that it is a member of; 0: none.
    std::uint32_t master = 0;
    contract::InterfaceCounters counters;

    /// True for the router's interface to itself.
    bool isLoopback() const;
    /// True when it is administratively up.
    bool isUp() const;
    /// True when it can carry traffic now.
    bool isRunning() const;
};

/// An IPv4 address on an interface. A value.
/// Byte order: network.
struct LinkAddress {
    std::uint32_t index = 0;    // of the interface
    std::uint32_t address = 0;  // the router's own, even on a point-to-point link
    std::uint32_t peer = 0;     // the other end of such a link, else `address`
    std::uint8_t prefixLength = 0;
    bool isGlobal = true;         // false: meaningful only on its link or host
    std::uint32_t broadcast = 0;  // as configured for the network; 0: none

    /// The broadcast address does not count: when it changes, the address is still the same.
    auto operator<=>(const LinkAddress& other) const { return key() <=> other.key(); }
    bool operator==(const LinkAddress& other) const { return key() == other.key(); }

private:
    std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t, bool> key() const {
        return {index, address, peer, prefixLength, isGlobal};
    }
};

/// What the services ask the kernel about interfaces. Replaced by a fake in tests.
class Kernel {
public:
    virtual ~Kernel() = default;
    /// Reads one interface with its counters.
    /// Errors: the kernel's text and errno value.
    virtual tk::Result<Link> readLink(std::uint32_t index) = 0;
    /// Sets an interface up or down.
    /// Errors: the kernel's text and errno value.
    virtual tk::Status setLinkUp(std::uint32_t index, bool up) = 0;
};

}  // namespace links
