#include "upnp/subscription.h"

#include <utility>

#include "tk/log.h"
#include "upnp/service.h"

namespace gateway {

namespace {

constexpr std::uint32_t ticksPerSecond = 100;

}  // namespace

Subscription::Subscription(Service& service, std::string sid, std::uint32_t address, std::uint16_t port,
                           std::string path)
    : sid(std::move(sid)), address(address), port(port), path(std::move(path)), service(service) {}

void Subscription::expireIn(std::uint32_t seconds) {
    expiryTimer.arm(seconds * ticksPerSecond);
}

std::uint32_t Subscription::takeSeq() {
    const std::uint32_t taken = seq;
    if (++seq == 0) seq = 1;  // GENA: 0 is only for the initial event
    return taken;
}

void Subscription::expired() {
    tk::log("subscription timeout: ", sid);
    const auto own = service.subscriptions.extract(sid);  // deletes this at the end of the function
}

}  // namespace gateway
