#pragma once

#include <cstdint>

#include "http/httpservice.h"
#include "tk/inquiry.h"
#include "upnp/callbackurl.h"
#include "upnp/service.h"

namespace gateway {

/// One new subscription whose callback URL names its host: asks the resolver for the address, and answers the
/// client when that has ended. Only this client waits; whether there still is room for it is looked at then.
class NamedSubscriber final : public HTTPWait, private tk::Inquiry::Owner {
public:
    /// Asks at once. `seconds` is what the subscription is granted.
    /// Lifetime: the service outlives the client's answer, or the wait is given up first.
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
