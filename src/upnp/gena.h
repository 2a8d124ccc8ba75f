#pragma once

#include <cstdint>

#include "http/httpmessage.h"
#include "http/httpservice.h"
#include "upnp/callbackurl.h"
#include "upnp/service.h"

namespace gateway {

/// Answers one SUBSCRIBE request: a new subscription when NT is present, else the renewal of SID. A new
/// subscription is sent all evented variables; a renewal sends nothing, and does not look at CALLBACK. A host
/// name in CALLBACK is asked of the resolver first, for which this client alone waits, 6 s at most.
/// Units: TIMEOUT is in seconds, granted from 1800 to 86400; the expiry timer counts ticks of 10 ms.
/// Errors: 412 for a bad NT, CALLBACK or SID, for a name without an address, and for a callback address that
/// is subscribed already, 500 at 100 subscriptions; nothing is changed then.
/// Protocol: GENA, UPnP Device Architecture 1.0, 4.1 (SUBSCRIBE, NT, CALLBACK, SID, TIMEOUT).
[[nodiscard]] HTTPAnswer subscribe(Service& service, const HTTPMessage& request, HTTPClient& client);

/// Makes the subscription of a callback whose address is known, starts its first event, and answers. Units
/// and errors: as above.
[[nodiscard]] HTTPMessage addSubscription(Service& service, const Callback& callback, std::uint32_t seconds);

/// Answers one UNSUBSCRIBE request. Events that are on their way are dropped when they connect.
/// Errors: 412 for an unknown SID.
[[nodiscard]] HTTPMessage unsubscribe(Service& service, const HTTPMessage& request);

}  // namespace gateway
