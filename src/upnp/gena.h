#pragma once

#include <cstdint>

#include "http/httpmessage.h"
#include "http/httpservice.h"
#include "upnp/callbackurl.h"
#include "upnp/service.h"

namespace gateway {

/// Answers one SUBSCRIBE request: a new subscription when NT is present, else the renewal of SID. A new
/// subscription is sent all evented variables. A renewal sends nothing and ignores CALLBACK. A host name in
/// CALLBACK is resolved first; only this client waits for that, 6 s at most.
/// Units: TIMEOUT is in seconds, granted from 1800 to 86400; the expiry timer counts ticks of 10 ms.
/// Errors: 412 for a bad NT, CALLBACK or SID, a name without an address, or a callback address that is
/// already subscribed; 500 at 100 subscriptions, and for a callback path of over 1 KiB that takes up more than
/// the 256 KiB which a service has for all of these. Nothing is changed then.
/// Protocol: GENA, UPnP Device Architecture 1.0, 4.1 (SUBSCRIBE, NT, CALLBACK, SID, TIMEOUT).
[[nodiscard]] HTTPAnswer subscribe(Service& service, const HTTPMessage& request, HTTPClient& client);

/// Makes a subscription for a callback whose address is known, starts its first event, and answers.
/// Units: as above.
/// Errors: as above.
[[nodiscard]] HTTPMessage addSubscription(Service& service, const Callback& callback, std::uint32_t seconds);

/// Answers one UNSUBSCRIBE request. Events on their way are dropped when they connect.
/// Errors: 412 for an unknown SID.
[[nodiscard]] HTTPMessage unsubscribe(Service& service, const HTTPMessage& request);

}  // namespace gateway
