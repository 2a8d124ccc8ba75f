#pragma once

#include <string>

#include "upnp/service.h"
#include "upnp/testing/fakeclient.h"

namespace gateway {

/// Calls an action as a control point does, through the control endpoint. `arguments` is the XML inside the
/// action's element, `source` the control point's address.
inline HTTPMessage soapCall(Service& service, const std::string& action, const std::string& arguments = {},
                            std::uint32_t source = 0) {
    HTTPMessage request;
    request.add("CONTENT-TYPE", "text/xml");
    request.add("SOAPACTION", "\"" + service.serviceType + "#" + action + "\"");
    request.body =
        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" + action +
        ">" + arguments + "</u:" + action + "></s:Body></s:Envelope>";
    FakeClient client(source);
    client.take(service.handlePost(request, client));
    return *client.answered;
}

}  // namespace gateway
