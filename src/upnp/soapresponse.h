#pragma once

#include "http/httpmessage.h"
#include "upnp/service.h"
#include "upnp/upnpstatus.h"
#include "xml/xmlnode.h"

/// The namespace of the control protocol's own elements: of faults and of QueryStateVariable.
constexpr const char* controlNamespace = "urn:schemas-upnp-org:control-1-0";

/// Wraps `content` in a SOAP envelope and that in a response with the given HTTP status.
/// Protocol: UPnP Device Architecture 1.0, 3.2.2.
[[nodiscard]] HTTPMessage soapResponse(Service& service, int httpStatus, XMLNode content);

/// The response to a control request that failed: HTTP 500 with a fault that carries the code and its
/// description.
[[nodiscard]] HTTPMessage soapFault(Service& service, UPNPStatus code);
