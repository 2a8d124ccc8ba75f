#pragma once

#include <cstdint>

#include "http/httpservice.h"
#include "tk/inquiry.h"
#include "upnp/callbackurl.h"
#include "upnp/service.h"

namespace gateway {

/// A new subscription whose callback URL holds a host name: asks the resolver for the address, then answers
/// the client. Only this client waits. The limit on subscriptions is checked after the wait.
class NamedSubscriber final : public HTTPWait, private tk::Inquiry::Owner {
public:
    /// Asks at once. `seconds` is the duration granted to the subscription.
    /// Lifetime: the service lives until the client is answered or the wait is given up.
    NamedSubscriber(Service& service, HTTPClient& client, Callback callback, std::uint32_t seconds);

    bool isFor(const HTTPService& candidate) const override { return &candidate == &service; }

private:
    void inquiryEnded(const tk::message& end) override;

    Service& service;
    HTTPClient& client;
    Callback callback;
    const std::uint32_t seconds;
    tk::Inquiry inquiry{*this};
};

}  // namespace gateway
