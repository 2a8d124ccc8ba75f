#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace gateway {

/// Where a subscriber wants its events sent. A value.
struct Callback {
    std::string host;                      // as the subscriber wrote it
    std::optional<std::uint32_t> address;  // network order; none: the host is a name that has to be asked for
    std::uint16_t port = 0;                // host order
    std::string path;                      // begins with a slash
};

/// Takes a subscriber's callback URL apart: "http://", a host with or without a port, and a path with its
/// slash, and no control character anywhere: the path goes into the start line of every event. A host that is
/// no address is a name. The port is kept in 16 bits, unchecked.
/// Errors: false for any other form; nothing is set then.
[[nodiscard]] bool parseCallbackUrl(const std::string& url, Callback& out);

}  // namespace gateway
