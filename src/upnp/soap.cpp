#include "upnp/soap.h"

#include <utility>
#include <variant>
#include <vector>

#include "net/convert.h"
#include "net/sockets.h"
#include "tk/log.h"
#include "xml/xmlparser.h"
#include "xml/xmlwriter.h"

namespace gateway {

namespace {

using Arguments = std::vector<std::string>;

constexpr const char* encodingStyle = "http://schemas.xmlsoap.org/soap/encoding/";
constexpr const char* queryAction = "QueryStateVariable";  // of the control protocol's own namespace

/// The first child with this name and any prefix; null when there is none.
const XMLNode* findChild(const XMLNode& node, std::string_view name) {
    for (const XMLNode& child : node.children)
        if (stripPrefix(child.name) == name) return &child;
    return nullptr;
}

const XMLProp* findProperty(const XMLNode& node, std::string_view name) {
    for (const XMLProp& property : node.properties)
        if (stripPrefix(property.name) == name) return &property;
    return nullptr;
}

template <typename... Parts>
HTTPMessage refuse(const Parts&... parts) {
    tk::log(parts...);
    return HTTPMessage(httpstatus::badRequest);
}

template <typename... Parts>
HTTPMessage fail(Service& service, UPNPStatus code, const Parts&... parts) {
    tk::log(parts...);
    return soapFault(service, code);
}

/// Adds one out-argument to the result.
void addResult(XMLNode& result, const std::string& name, const std::string& value) {
    tk::log("ret: ", name, ", val: ", value);
    result.addSubNode(name, value);
}

HTTPMessage answerFromVariables(Service& service, const Action& action, XMLNode result) {
    for (std::size_t i = 0; i < action.outVars.size(); ++i) {
        const auto variable = service.variables.find(action.outVars[i]);
        if (variable == service.variables.end()) return fail(service, upnpstatus::invalidAction, "bad var");
        std::string value;
        if (!variable->second->getValue(value)) return fail(service, upnpstatus::invalidAction, "bad val");
        addResult(result, action.outNames[i], value);
    }
    return soapResponse(service, httpstatus::ok, std::move(result));
}

/// The in-arguments in the action's order, or a fault if one fails its check.
std::variant<Arguments, HTTPMessage> readArguments(Service& service, const Action& action,
                                                   const XMLNode& call) {
    Arguments in;
    for (std::size_t i = 0; i < action.inVars.size(); ++i) {
        const auto variable = service.variables.find(action.inVars[i]);
        if (variable == service.variables.end())
            return fail(service, upnpstatus::invalidAction, "POST: bad variable");
        const XMLNode* const argument = findChild(call, action.inNames[i]);
        if (!argument)
            return fail(service, upnpstatus::invalidArgs,
                        "POST: action xml doesn't have var: ", action.inNames[i]);
        tk::log("arg: ", argument->name, ", val: ", argument->value);
        if (!checkValue(*variable->second, argument->value))
            return fail(service, upnpstatus::invalidArgs, "POST: action xml bad variable value");
        in.push_back(argument->value);
    }
    return in;
}

HTTPMessage answerFromCallback(Service& service, const Action& action, const XMLNode& call, XMLNode result) {
    const auto in = readArguments(service, action, call);
    if (const auto* const fault = std::get_if<HTTPMessage>(&in)) return *fault;
    Arguments out;
    const UPNPStatus status = (*action.callback)(std::get<Arguments>(in), out);
    if (status != upnpstatus::ok) return soapFault(service, status);
    if (out.size() != action.outVars.size()) return fail(service, upnpstatus::invalidAction, "bad ret");
    for (std::size_t i = 0; i < out.size(); ++i) addResult(result, action.outNames[i], out[i]);
    return soapResponse(service, httpstatus::ok, std::move(result));
}

}  // namespace

HTTPMessage handlePost(Service& service, const HTTPMessage& request) {
    const std::string contentType = request.get("CONTENT-TYPE");
    if (contentType.find("text/xml") == std::string::npos)
        return refuse("POST method with bad CONTENT-TYPE: ", contentType);
    const XMLParser document(request.body);
    if (!document.ok) return refuse("POST: with bad xml");
    const XMLNode& envelope = document.root.children.front();
    if (stripPrefix(envelope.name) != "Envelope") return refuse("POST: XML bad node name: ", envelope.name);
    const XMLProp* const style = findProperty(envelope, "encodingStyle");
    if (!style) return refuse("POST: XML no encoding style");
    if (style->value != encodingStyle) return refuse("POST: XML bad encoding style");
    const XMLNode* const body = findChild(envelope, "Body");
    if (!body) return refuse("POST: XML no body");
    const std::string header = request.get("SOAPACTION");
    if (header.empty()) return refuse("POST: with no SOAPACTION");

    std::string_view action = header;
    // Removes the last byte with the first, whatever it is.
    if (firstByte(action) == '"') action = slice(action, 1, action.size() > 1 ? action.size() - 2 : 0);
    if (action == controlNamespace + std::string("#") + queryAction)
        return queryStateVariable(service, *body);
    const std::size_t hash = action.find('#');
    return invokeAction(service, *body,
                        std::string(hash == std::string_view::npos ? action : slice(action, hash + 1)));
}

HTTPMessage invokeAction(Service& service, const XMLNode& body, const std::string& actionName) {
    tk::log("action: ", actionName);
    const XMLNode* const call = findChild(body, actionName);
    if (!call) return refuse("POST: XML has no such action");
    const auto entry = service.actions.find(actionName);
    if (entry == service.actions.end())
        return fail(service, upnpstatus::invalidAction, "POST: no such action registered");
    const Action& action = *entry->second;
    XMLNode result("u:" + actionName + "Response");
    result.addProperty("xmlns:u", service.serviceType);
    return action.callback ? answerFromCallback(service, action, *call, std::move(result))
                           : answerFromVariables(service, action, std::move(result));
}

HTTPMessage queryStateVariable(Service& service, const XMLNode& body) {
    const XMLNode* const query = findChild(body, queryAction);
    if (!query) return refuse("POST: query variable xml bad");
    const XMLNode* const name = findChild(*query, "varName");
    if (!name) return refuse("POST: query variable xml var name bad");
    tk::log("query variable: ", name->value);
    const auto variable = service.variables.find(name->value);
    if (variable == service.variables.end())
        return fail(service, upnpstatus::invalidVar, "POST: no such variable name registered");
    std::string value;
    if (!variable->second->getValue(value))
        return fail(service, upnpstatus::invalidVar, "POST: variable has no value");
    XMLNode result("u:QueryStateVariableResponse");
    result.addProperty("xmlns:u", controlNamespace);
    result.addSubNode("return", value);
    return soapResponse(service, httpstatus::ok, std::move(result));
}

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
    return soapResponse(service, httpstatus::internalServerError, std::move(fault));
}

}  // namespace gateway
