#pragma once

#include <cstdint>

#include "contract/natrules.h"
#include "netlink/socket.h"
#include "tk/status.h"

namespace nat {

using contract::NatKey;

/// Knows on which ports programs of the router listen. Replaced by a fake in tests.
class Listeners {
public:
    virtual ~Listeners() = default;
    /// True when a socket receives what arrives for a key at an interface, given by its index.
    /// Errors: when the kernel cannot tell.
    virtual tk::Result<bool> isTaken(const NatKey& key, std::uint32_t interface) = 0;
};

/// Asks the kernel which socket it would give a packet to. That is one look-up, however many sockets there
/// are. It does not find sockets that are bound to another interface or address, or connected to a peer.
class SocketListeners final : public Listeners {
public:
    /// Opens the socket to the kernel.
    /// Errors: when the kernel cannot do such look-ups.
    tk::Status open();

    tk::Result<bool> isTaken(const NatKey& key, std::uint32_t interface) override;

private:
    tk::Status findsOwn(std::uint8_t protocol);

    netlink::Socket socket;
};

}  // namespace nat
