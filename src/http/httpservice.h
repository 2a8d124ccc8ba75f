#pragma once

#include <cstdint>
#include <memory>
#include <variant>

#include "http/httpmessage.h"

namespace gateway {

class HTTPService;

/// The client that made a request, as a service sees it.
class HTTPClient {
public:
    virtual ~HTTPClient() = default;
    /// The address that the request came from.
    /// Byte order: network.
    virtual std::uint32_t source() const = 0;
    /// True when one more request from that address may be kept waiting.
    virtual bool mayWait() const = 0;
    /// Answers a request that was kept waiting, and ends it. This destroys its HTTPWait.
    virtual void answer(const HTTPMessage& response) = 0;
};

/// Held by a request while its answer depends on another program. Destroying it gives the request up, without
/// an answer to the client.
class HTTPWait {
public:
    virtual ~HTTPWait() = default;
    /// True when the request waits for this service.
    virtual bool isFor(const HTTPService& service) const = 0;
};

/// What a service returns for a request: the response, or a wait that the client's answer() ends.
using HTTPAnswer = std::variant<HTTPMessage, std::unique_ptr<HTTPWait>>;

/// What the HTTP server needs of a UPnP service: answers to the three kinds of request that are routed to it.
/// The server has already checked the path and HOST.
/// Lifetime: the client outlives its request's HTTPWait.
class HTTPService {
public:
    virtual ~HTTPService() = default;

    /// Answers a POST to the service's control URL.
    virtual HTTPAnswer handlePost(const HTTPMessage& request, HTTPClient& client) = 0;
    /// Answers a SUBSCRIBE to the service's event URL: a new subscription or a renewal.
    virtual HTTPAnswer subscribe(const HTTPMessage& request, HTTPClient& client) = 0;
    /// Answers an UNSUBSCRIBE to the service's event URL.
    virtual HTTPAnswer unsubscribe(const HTTPMessage& request, HTTPClient& client) = 0;
};

}  // namespace gateway
