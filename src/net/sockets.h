#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace gateway {

/// Opens a UDP socket that is bound to a network device but to no address. A null name counts as empty. The
/// kernel sees 16 bytes of the name: one of 16 characters or more is cut. The descriptor is non-blocking and
/// close-on-exec, as in the next two functions. The caller closes it.
/// Errors: -1, logged.
[[nodiscard]] int openUdpSocket(const char* deviceName);

/// Opens the SSDP listener of one internal interface: UDP port 1900, member of 239.255.255.250 on that
/// interface, multicast TTL 4.
/// Byte order: the address is in network order.
/// Errors: -1, logged.
[[nodiscard]] int openSsdpSocket(const char* deviceName, int interfaceIndex, std::uint32_t interfaceAddress);

/// Opens a TCP listener on `port` of one network device, with a queue of 1. What a peer does not take is dropped after
/// 10 s, see limitUntaken().
/// Byte order: the port is in host order.
/// Errors: -1, logged.
[[nodiscard]] int openTcpListener(const char* deviceName, int port);

/// Lets the kernel give a TCP connection up about this long after its peer has last taken something, or closed its
/// window and has not opened it wide since; also after it was closed here. For a peer that never reads, it would keep
/// the text for many minutes.
/// Errors: none; at worst the text is kept for longer.
void limitUntaken(int socket, std::chrono::milliseconds time);

/// Sends a whole text on a connected TCP socket, after the log lines that were gathered. It never waits for
/// the peer: if the socket's buffer does not take all, it is made large enough for the rest.
/// Errors: false when less went out; the rest is not sent later.
[[nodiscard]] bool sendWhole(int socket, std::string_view text);

/// What the daemon calls itself in the SERVER header. It is constructed just before main(), so nothing may be
/// sent earlier.
extern const std::string serverString;

/// The line end of HTTP, SSDP and the XML writer. Constructed before main(), as above.
extern const std::string crlf;

}  // namespace gateway
