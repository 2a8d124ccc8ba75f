#pragma once

#include <cstdint>
#include <string>

class Device;

/// What the HTTP server asks of the gateway above it.
class HTTPHost {
public:
    virtual ~HTTPHost() = default;
    /// The interface whose HTTP listener this socket is; null when none owns it.
    virtual Device* listenerOwner(int listenSocket) = 0;
    /// The address that the interface serves. Byte order: network.
    virtual std::uint32_t addressOf(const Device& device) const = 0;
    /// The root device description as an XML document, for clients that reach the gateway at `address`.
    virtual std::string describe(std::uint32_t address) = 0;
    /// A connection that was accepted on `device` ended.
    virtual void connectionEnded(const Device& device) = 0;
};
