#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace gateway {

/// Where a subscriber wants its events sent. A value.
struct Callback {
    std::string host;                      // as the subscriber wrote it
    std::optional<std::uint32_t> address;  // network order; none: the host is a name to be resolved
    std::uint16_t port = 0;                // host order
    std::string path;                      // begins with a slash
};

/// Parses a subscriber's callback URL: "http://", a host with or without a port, and a path with its slash.
/// No control character is allowed, because the path goes into the start line of every event. A host that is
/// not an address counts as a name. The port is cut to 16 bits, unchecked.
/// Errors: false for any other form; `out` is unchanged then.
[[nodiscard]] bool parseCallbackUrl(const std::string& url, Callback& out);

}  // namespace gateway
