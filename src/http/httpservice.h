#pragma once

#include "http/httpmessage.h"

/// What the HTTP server needs of a UPnP service: answers to the three kinds of requests that are routed to
/// one. The server has checked path and HOST before.
class HTTPService {
public:
    virtual ~HTTPService() = default;

    /// Answers a POST to the service's control URL.
    virtual HTTPMessage handlePost(const HTTPMessage& request) = 0;
    /// Answers a SUBSCRIBE to its event URL: a new subscription or a renewal.
    virtual HTTPMessage subscribe(const HTTPMessage& request) = 0;
    /// Answers an UNSUBSCRIBE to its event URL.
    virtual HTTPMessage unsubscribe(const HTTPMessage& request) = 0;
};
