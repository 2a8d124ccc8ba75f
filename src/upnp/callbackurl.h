#pragma once

#include <cstdint>
#include <string>

/// Takes a subscriber's callback URL apart: "http://", a host with or without a port, and a path with its
/// slash, and no control character anywhere: the path goes into the start line of every event. A host that is
/// no address is asked of the name resolver, which may take 6 s. The port is kept in 16 bits, unchecked.
/// Byte order: address in network order, port in host order.
/// Errors: false for any other form, and for a name without an address; nothing is set then. The resolver's
/// own error is logged, and an address that comes with it is taken all the same.
[[nodiscard]] bool parseCallbackUrl(const std::string& url, std::uint32_t& address, std::uint16_t& port,
                                    std::string& path);
