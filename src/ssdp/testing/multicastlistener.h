#pragma once

#include <string>
#include <vector>

#include "tk/fd.h"

namespace gateway {

/// Receives what is multicast to the SSDP group on the loopback interface.
class MulticastListener {
public:
    MulticastListener();

    struct Datagram {
        std::string text;
        int ttl = 0;
        int sourcePort = 0;
    };
    /// Everything received since the last call, in order.
    std::vector<Datagram> take();
    /// The texts of the same.
    std::vector<std::string> texts();

private:
    tk::Fd socket;
};

}  // namespace gateway
