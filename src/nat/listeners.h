#pragma once

#include <cstdint>

#include "contract/natrules.h"
#include "netlink/socket.h"
#include "tk/status.h"

namespace nat {

using contract::NatKey;

/// Knows where programs of the router wait to be called. Replaced by a fake in tests.
class Listeners {
public:
    virtual ~Listeners() = default;
    /// Whether a socket takes what arrives for a key at an interface (its index).
    virtual tk::Result<bool> isTaken(const NatKey& key, std::uint32_t interface) = 0;
};

/// Asks the kernel for the very socket that it would give the packet to: one look-up, whatever the number of
/// sockets. What is bound to another interface or address, or connected to somebody, is not it.
class SocketListeners final : public Listeners {
public:
    /// Finds out whether the kernel can tell.
    tk::Status open();

    tk::Result<bool> isTaken(const NatKey& key, std::uint32_t interface) override;

private:
    tk::Status findsOwn(std::uint8_t protocol);

    netlink::Socket socket;
};

}  // namespace nat
