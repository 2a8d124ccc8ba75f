#pragma once

#include <cstdint>
#include <string>

#include "netlink/socket.h"

namespace router {

/// Knows where programs of the router wait to be called. Replaced by a fake in tests.
class Listeners {
public:
    enum class Answer : std::uint8_t { nobody, somebody, unknown };

    virtual ~Listeners() = default;
    /// Whether a socket takes what arrives at an interface (its index) for this address, protocol and port.
    /// Byte order: the address in network order, the port in host order.
    /// Errors: unknown, with the reason in `reason`.
    [[nodiscard]] virtual Answer find(std::uint32_t address, std::uint8_t protocol, std::uint16_t port,
                                      std::uint32_t interface, std::string& reason) = 0;
};

/// Asks the kernel for the very socket that it would give the packet to: one look-up, whatever the number of
/// sockets. What is bound to another interface or address, or connected to somebody, is not it.
class SocketListeners final : public Listeners {
public:
    /// Finds out whether the kernel can tell. Errors: false, with the reason in `reason`.
    [[nodiscard]] bool open(std::string& reason);

    [[nodiscard]] Answer find(std::uint32_t address, std::uint8_t protocol, std::uint16_t port,
                              std::uint32_t interface, std::string& reason) override;

private:
    [[nodiscard]] bool findsOwn(std::uint8_t protocol, std::string& reason);

    netlink::Socket socket;
};

}  // namespace router
