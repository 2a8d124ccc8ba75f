#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace gateway {

/// Opens a UDP socket that is bound to one network device, and to no address.
/// A null name counts as empty. The kernel sees 16 bytes of the name: one of 16 characters or more is cut.
/// The descriptor is non-blocking and close-on-exec, like those of the other two; the caller closes it.
/// Errors: -1, logged.
[[nodiscard]] int openUdpSocket(const char* deviceName);

/// Opens the SSDP listener of one internal interface: UDP port 1900, member of 239.255.255.250 on that
/// interface, multicast TTL 4.
/// Byte order: the address is in network order.
/// Errors: -1, logged.
[[nodiscard]] int openSsdpSocket(const char* deviceName, int interfaceIndex, std::uint32_t interfaceAddress);

/// Opens a TCP listener on `port` of one network device, with a queue of 1.
/// Byte order: the port is in host order.
/// Errors: -1, logged.
[[nodiscard]] int openTcpListener(const char* deviceName, int port);

/// Sends a whole text on a connected TCP socket, in one call that never waits for the peer: the socket's
/// buffer is first made large enough for it.
/// Errors: false when less went out; what is missing is not sent later.
[[nodiscard]] bool sendWhole(int socket, std::string_view text);

/// How the daemon calls itself in the SERVER header. Nothing may be sent before main(), for it is made only
/// then.
extern const std::string serverString;

/// The line end of HTTP, SSDP and the XML writer. Made before main(), as above.
extern const std::string crlf;

}  // namespace gateway
