#pragma once

#include <cstdint>

namespace router {

/// What the configuration says of the guard around the gateway daemon. In the limits 0 stands for none.
/// A value.
struct GuardConfig {
    bool limitsConnections = true;          // of the daemon: whatever it sends goes to hosts inside
    std::uint32_t searchesPerSecond = 200;  // datagrams to UDP 1900 from one source
    std::uint32_t requestsPerSecond = 0;    // connections to TCP 2828 from one source
    std::uint32_t connections = 0;          // that one source may have with TCP 2828 at once

    bool operator==(const GuardConfig&) const = default;
};

}  // namespace router
