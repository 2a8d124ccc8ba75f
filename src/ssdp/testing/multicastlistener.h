#pragma once

#include <string>
#include <vector>

#include "tk/fd.h"

namespace gateway {

/// Hears what is multicast to the SSDP group on the loopback interface.
class MulticastListener {
public:
    MulticastListener();

    struct Datagram {
        std::string text;
        int ttl = 0;
        int sourcePort = 0;
    };
    /// Everything heard since the last call, in order.
    std::vector<Datagram> take();
    /// The same, texts alone.
    std::vector<std::string> texts();

private:
    tk::Fd socket;
};

}  // namespace gateway
