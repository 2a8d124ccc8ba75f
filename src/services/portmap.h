#pragma once

#include <cstdint>
#include <string>

namespace gateway {

/// The key of a port mapping. The remote host is not part of it.
struct Id {
    std::uint16_t port = 0;     // external port
    std::int32_t protocol = 0;  // 0 TCP, 1 UDP

    /// Orders by port, then by protocol: TCP before UDP.
    bool operator<(const Id& other) const;
};

/// One port mapping, kept beside the NAT rule that it stands for. A value. There are many: the members stand
/// so that no room is lost between them.
struct PortMap {
    std::string description;           // the client's text; the firewall never gets it
    std::uint32_t internalClient = 0;  // IPv4, network order
    std::uint32_t natId = 0;           // the bus object of the NAT rule
    std::uint32_t requester = 0;       // the last host to ask for it; IPv4, network order
    std::uint32_t since = 0;           // when it was made; seconds since 1970, up to 2106
    std::uint16_t internalPort = 0;
    bool enabled = false;
};

/// Reads a key from a client's texts. The port is cut to 16 bits, and anything but "TCP" is UDP.
Id toId(const std::string& externalPort, const std::string& protocol);

/// "TCP" or "UDP".
const char* protocolName(std::int32_t protocol);

/// The number of the key's IP protocol.
std::uint8_t ipProtocol(const Id& id);

}  // namespace gateway
