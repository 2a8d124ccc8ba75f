#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace doctor {

/// One packet of a mapped connection, as the chains at forward see it. A value.
/// Byte order: addresses and ports in host order.
struct Packet {
    std::string in;                            // the interface that it came by
    std::string out;                           // the one that it leaves by
    std::optional<std::uint32_t> source;       // none: some host of the Internet
    std::optional<std::uint32_t> destination;  // none: some host of the Internet
    std::uint8_t protocol = 0;
    std::optional<std::uint16_t> sourcePort;       // none: any
    std::optional<std::uint16_t> destinationPort;  // none: any
    std::uint32_t originalDestination = 0;         // of the connection: the external address
    std::uint16_t originalPort = 0;                // of the connection: the external port
    bool isReply = false;                          // from the host inside

    bool operator==(const Packet&) const = default;
};

/// A connection from some host of the Internet through a port mapping. A value.
/// Byte order: addresses and ports in host order.
struct MappedFlow {
    std::string external;  // the interface that it comes by
    std::string internal;  // the interface of the host inside
    std::uint32_t externalAddress = 0;
    std::uint16_t externalPort = 0;
    std::uint8_t protocol = 0;
    std::uint32_t client = 0;
    std::uint16_t clientPort = 0;

    /// Its first packet.
    [[nodiscard]] Packet request() const;
    /// The answer to it.
    [[nodiscard]] Packet reply() const;
    /// "tcp 198.51.100.1:80 to 192.0.2.2:8080".
    [[nodiscard]] std::string text() const;

    bool operator==(const MappedFlow&) const = default;
};

}  // namespace doctor
