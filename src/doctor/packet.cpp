#include "doctor/packet.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "net/convert.h"

namespace doctor {

Packet MappedFlow::request() const {
    Packet packet;
    packet.in = external;
    packet.out = internal;
    packet.destination = client;
    packet.protocol = protocol;
    packet.destinationPort = clientPort;
    packet.originalDestination = externalAddress;
    packet.originalPort = externalPort;
    return packet;
}

Packet MappedFlow::reply() const {
    Packet packet;
    packet.in = internal;
    packet.out = external;
    packet.source = client;
    packet.protocol = protocol;
    packet.sourcePort = clientPort;
    packet.originalDestination = externalAddress;
    packet.originalPort = externalPort;
    packet.isReply = true;
    return packet;
}

std::string MappedFlow::text() const {
    const auto place = [](std::uint32_t address, std::uint16_t port) {
        return gateway::ipToString(htonl(address)) + ':' + std::to_string(port);
    };
    return (protocol == IPPROTO_TCP ? "tcp " : "udp ") + place(externalAddress, externalPort) + " to " +
           place(client, clientPort);
}

}  // namespace doctor
