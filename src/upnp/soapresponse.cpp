#include "upnp/soapresponse.h"

#include <cstdint>
#include <utility>

#include "net/convert.h"
#include "net/sockets.h"
#include "xml/xmlwriter.h"

namespace {

constexpr int internalServerError = 500;

}  // namespace

HTTPMessage soapResponse(Service&, int httpStatus, XMLNode content) {
    XMLNode body("s:Body");
    body.addSubNode(std::move(content));
    XMLNode envelope("s:Envelope");
    envelope.addProperty("xmlns:s", "http://schemas.xmlsoap.org/soap/envelope/");
    envelope.addProperty("s:encodingStyle", "http://schemas.xmlsoap.org/soap/encoding/");
    envelope.addSubNode(std::move(body));

    std::string text = toXmlDocument(envelope);
    HTTPMessage response(httpStatus);
    response.add("CONTENT-LENGTH", toString(static_cast<std::uint32_t>(text.size())));
    response.add("CONTENT-TYPE", "text/xml; charset=\"utf-8\"");
    response.addDate(0);
    response.add("EXT", "");
    response.add("SERVER", serverString);
    response.body = std::move(text);
    return response;
}

HTTPMessage soapFault(Service& service, UPNPStatus code) {
    XMLNode error("UPnPError");
    error.addProperty("xmlns", controlNamespace);
    error.addSubNode("errorCode", toString(code));
    error.addSubNode("errorDescription", errorDescription(code));
    XMLNode detail("detail");
    detail.addSubNode(std::move(error));
    XMLNode fault("s:Fault");
    fault.addSubNode("faultCode", "s:Client");  // capital C and S on purpose: clients see these names
    fault.addSubNode("faultString", "UPnPError");
    fault.addSubNode(std::move(detail));
    return soapResponse(service, internalServerError, std::move(fault));
}
