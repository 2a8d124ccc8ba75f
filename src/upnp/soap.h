#pragma once

#include <string>

#include "http/httpmessage.h"
#include "upnp/service.h"
#include "upnp/upnpstatus.h"
#include "xml/xmlnode.h"

namespace gateway {

/// Answers a POST to a service's control URL: an action, or QueryStateVariable.
/// Errors: a bare HTTP 400 for a request that is not a SOAP call, else a SOAP fault. Both are logged here,
/// except an action's own failure, which the action logs. An action runs only after all its arguments have
/// passed their checks.
/// Protocol: UPnP Device Architecture 1.0, 3.2. The service type in SOAPACTION is ignored; the URL decides.
[[nodiscard]] HTTPMessage handlePost(Service& service, const HTTPMessage& request);

/// Carries out the action whose element is in `body`. Arguments are found by name, in any order.
[[nodiscard]] HTTPMessage invokeAction(Service& service, const XMLNode& body, const std::string& actionName);

/// Answers with the value of the variable named in `body`, evented or not.
[[nodiscard]] HTTPMessage queryStateVariable(Service& service, const XMLNode& body);

/// The namespace of the control protocol's own elements: faults and QueryStateVariable.
constexpr const char* controlNamespace = "urn:schemas-upnp-org:control-1-0";

/// Wraps `content` in a SOAP envelope, and the envelope in a response with the given HTTP status.
/// Protocol: UPnP Device Architecture 1.0, 3.2.2.
[[nodiscard]] HTTPMessage soapResponse(Service& service, int httpStatus, XMLNode content);

/// The response to a failed control request: HTTP 500 with a fault that holds the code and its description.
[[nodiscard]] HTTPMessage soapFault(Service& service, UPNPStatus code);

}  // namespace gateway
