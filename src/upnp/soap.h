#pragma once

#include <string>

#include "http/httpmessage.h"
#include "upnp/service.h"
#include "upnp/upnpstatus.h"
#include "xml/xmlnode.h"

namespace gateway {

/// Answers a POST to a service's control URL: an action, or QueryStateVariable.
/// Errors: a bare HTTP 400 for a request that is no SOAP call, else a SOAP fault; logged, but for the fault
/// with an action's own status, of which the action speaks. An action runs only after all of its arguments
/// have passed their checks.
/// Protocol: UPnP Device Architecture 1.0, 3.2. The service's type in SOAPACTION is not looked at; the URL
/// decides.
[[nodiscard]] HTTPMessage handlePost(Service& service, const HTTPMessage& request);

/// Carries out the action whose element is in `body`. Arguments are found by name, in any order.
[[nodiscard]] HTTPMessage invokeAction(Service& service, const XMLNode& body, const std::string& actionName);

/// Answers with the value of the variable that is named in `body`, be it evented or not.
[[nodiscard]] HTTPMessage queryStateVariable(Service& service, const XMLNode& body);

/// The namespace of the control protocol's own elements: of faults and of QueryStateVariable.
constexpr const char* controlNamespace = "urn:schemas-upnp-org:control-1-0";

/// Wraps `content` in a SOAP envelope and that in a response with the given HTTP status.
/// Protocol: UPnP Device Architecture 1.0, 3.2.2.
[[nodiscard]] HTTPMessage soapResponse(Service& service, int httpStatus, XMLNode content);

/// The response to a control request that failed: HTTP 500 with a fault that carries the code and its
/// description.
[[nodiscard]] HTTPMessage soapFault(Service& service, UPNPStatus code);

}  // namespace gateway
