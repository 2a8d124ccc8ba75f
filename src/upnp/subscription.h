#pragma once

#include <cstdint>
#include <string>

#include "tk/timer.h"

namespace gateway {

class Service;

/// One subscriber to a service's events. Ends itself when its time is up.
class Subscription {
public:
    /// Byte order: address in network order, port in host order.
    /// Lifetime: the service owns the subscription.
    Subscription(Service& service, std::string sid, std::uint32_t address, std::uint16_t port,
                 std::string path);

    /// Makes the subscription end `seconds` from now, whatever time was left.
    void expireIn(std::uint32_t seconds);

    /// Returns the number of the next NOTIFY, and counts on.
    std::uint32_t takeSeq();

    const std::string sid;        // "uuid:" and a UUID
    const std::uint32_t address;  // where events go
    const std::uint16_t port;
    const std::string path;  // begins with a slash
    Service& service;        // whose events it gets
    std::uint32_t seq = 0;   // of the next NOTIFY

private:
    void expired();

    tk::Timer<Subscription, &Subscription::expired> expiryTimer{*this};
};

}  // namespace gateway
