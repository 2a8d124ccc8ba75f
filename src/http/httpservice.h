#pragma once

#include <cstdint>
#include <memory>
#include <variant>

#include "http/httpmessage.h"

namespace gateway {

class HTTPService;

/// The host that made a request, as a service sees it.
class HTTPClient {
public:
    virtual ~HTTPClient() = default;
    /// The address that it asks from.
    /// Byte order: network.
    virtual std::uint32_t source() const = 0;
    /// True when one more request from its address may be kept waiting.
    virtual bool mayWait() const = 0;
    /// Answers a request that was kept waiting, and ends it: what it waited with is destroyed in here.
    virtual void answer(const HTTPMessage& response) = 0;
};

/// What a request waits with whose answer takes somebody else's. Destroying it gives the request up: the
/// client is not answered then.
class HTTPWait {
public:
    virtual ~HTTPWait() = default;
    /// True when it is this service that the request waits for.
    virtual bool isFor(const HTTPService& service) const = 0;
};

/// What a service does with a request: the response, or the wait for it, which ends with the client's
/// answer().
using HTTPAnswer = std::variant<HTTPMessage, std::unique_ptr<HTTPWait>>;

/// What the HTTP server needs of a UPnP service: answers to the three kinds of requests that are routed to
/// one. The server has checked path and HOST before.
/// Lifetime: the client outlives what its request waits with.
class HTTPService {
public:
    virtual ~HTTPService() = default;

    /// Answers a POST to the service's control URL.
    virtual HTTPAnswer handlePost(const HTTPMessage& request, HTTPClient& client) = 0;
    /// Answers a SUBSCRIBE to its event URL: a new subscription or a renewal.
    virtual HTTPAnswer subscribe(const HTTPMessage& request, HTTPClient& client) = 0;
    /// Answers an UNSUBSCRIBE to its event URL.
    virtual HTTPAnswer unsubscribe(const HTTPMessage& request, HTTPClient& client) = 0;
};

}  // namespace gateway
