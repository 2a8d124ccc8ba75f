// Decides where a request goes: by method and path, then by HOST.

#include "http/httpserver.h"

#include "contract/ports.h"
#include "net/convert.h"
#include "tk/log.h"

namespace gateway {

namespace {

using Services = std::map<std::string, HTTPService*>;
using Method = HTTPAnswer (HTTPService::*)(const HTTPMessage& request, HTTPClient& client);

/// True when HOST names the interface's own address, with or without the port.
bool namesHost(const HTTPMessage& request, std::uint32_t address) {
    const std::string host = request.get("HOST");
    const std::string own = ipToString(address);
    return host == own || host == own + ":" + toString(unsigned{contract::httpPort});
}

/// A kind of request that services answer.
struct Route {
    const char* method;
    const Services& services;
    Method answer;
};

/// The fixed order of checks: the path (404), HOST (400), then the service.
HTTPAnswer callService(const Route& route, const std::string& path, const HTTPMessage& request,
                       std::uint32_t address, HTTPClient& client) {
    const auto service = route.services.find(path);
    if (service == route.services.end()) return HTTPMessage(httpstatus::notFound);
    if (!namesHost(request, address)) {
        tk::log(route.method, ": host mismatch '", request.get("HOST"), "'");
        return HTTPMessage(httpstatus::badRequest);
    }
    return (service->second->*route.answer)(request, client);
}

}  // namespace

HTTPAnswer HTTPServer::dispatch(HTTPConn& connection, const HTTPMessage& request, const std::string& method,
                                const std::string& path) {
    const Route routes[] = {
        {"SUBSCRIBE", servicesByEventURL, &HTTPService::subscribe},
        {"UNSUBSCRIBE", servicesByEventURL, &HTTPService::unsubscribe},
        {"POST", servicesByControlURL, &HTTPService::handlePost},
    };
    const Device& device = connection.device();
    if (method == "GET") return dispatchGet(device, request, path);
    for (const Route& route : routes)
        if (method == route.method)
            return callService(route, path, request, host.addressOf(device), connection);
    tk::log("what is this: '", method, "'");
    return HTTPMessage(httpstatus::notImplemented);
}

HTTPMessage HTTPServer::dispatchGet(const Device& device, const HTTPMessage& request,
                                    const std::string& path) {
    const bool isDescription = path == "/gateway.xml";
    return serveGet(store, request, isDescription ? host.describe(host.addressOf(device)) : std::string());
}

}  // namespace gateway
