#include "upnp/gena.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <limits>
#include <memory>

#include "net/convert.h"
#include "net/sockets.h"
#include "tk/log.h"
#include "upnp/callbackurl.h"
#include "upnp/event.h"
#include "upnp/namedsubscriber.h"
#include "upnp/subscription.h"

namespace gateway {

namespace {

constexpr std::size_t subscriptionLimit = 100;  // per service
// What a service keeps of callback paths that are longer than usual. Each notification carries its path, and
// waits in the kernel until it is read, also when the subscription has ended.
constexpr std::size_t usualPathLength = 1024;
constexpr std::size_t longPathsLimit = std::size_t{256} * 1024;
constexpr std::uint32_t shortestSeconds = 1800;  // also when the request states none, or no number
constexpr std::uint32_t longestSeconds = 86400;
constexpr std::size_t uuidTextSize = 37;  // with its '\0'

/// The requested duration; 0 for none. A negative number counts as a huge one.
std::uint32_t requestedSeconds(const std::string& timeout) {
    constexpr std::string_view unit = "Second-";
    if (slice(timeout, 0, unit.size()) != unit) return 0;
    const std::string number(slice(timeout, unit.size()));
    if (number == "infinite") return std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(toInt(number));
}

std::uint32_t grantedSeconds(const HTTPMessage& request) {
    return std::clamp(requestedSeconds(request.get("TIMEOUT")), shortestSeconds, longestSeconds);
}

/// Reads the first URL of the list. True when events can be sent to it.
bool readCallback(const HTTPMessage& request, Callback& callback) {
    const std::string list = request.get("CALLBACK");
    if (firstByte(list) != '<' || lastByte(list) != '>') return false;
    const std::string url(slice(list, 1, list.find('>') - 1));
    return parseCallbackUrl(url, callback);
}

bool hasSubscriptionFrom(const Service& service, std::uint32_t address) {
    return std::any_of(service.subscriptions.begin(), service.subscriptions.end(),
                       [address](const auto& entry) { return entry.second->address == address; });
}

/// True when the service has room for a subscription with this callback path.
bool hasRoomForPath(const Service& service, const std::string& path) {
    if (path.size() <= usualPathLength) return true;
    std::size_t kept = 0;
    for (const auto& [sid, subscription] : service.subscriptions)
        if (subscription->path.size() > usualPathLength) kept += subscription->path.size();
    for (const auto& [descriptor, event] : service.events)
        if (event->sentPath() > usualPathLength && !service.subscriptions.contains(event->subscriber()))
            kept += event->sentPath();
    return kept + path.size() <= longPathsLimit;
}

std::string newSid() {
    uuid_t uuid;
    char text[uuidTextSize] = {};
    uuid_generate(uuid);
    uuid_unparse(uuid, text);
    return "uuid:" + std::string(text);
}

HTTPMessage grant(Subscription& subscription, std::uint32_t seconds) {
    subscription.expireIn(seconds);
    HTTPMessage response(httpstatus::ok);
    response.addDate(0);
    response.add("SERVER", serverString);
    response.add("SID", subscription.sid);
    response.add("TIMEOUT", "Second-" + toString(seconds));
    return response;
}

HTTPAnswer subscribeAnew(Service& service, const HTTPMessage& request, HTTPClient& client) {
    Callback callback;
    if (request.get("NT") != "upnp:event" || !readCallback(request, callback))
        return HTTPMessage(httpstatus::preconditionFailed);
    const std::uint32_t seconds = grantedSeconds(request);
    if (callback.address) return addSubscription(service, callback, seconds);
    if (client.mayWait()) return std::make_unique<NamedSubscriber>(service, client, callback, seconds);
    tk::log("resolving failed: too many requests wait for names");
    return HTTPMessage(httpstatus::preconditionFailed);
}

}  // namespace

HTTPMessage addSubscription(Service& service, const Callback& callback, std::uint32_t seconds) {
    const std::uint32_t address = callback.address.value_or(0);
    tk::log("callback addr: ", ipToString(address), ", port: ", std::uint32_t{callback.port},
            ", path: ", callback.path);
    if (service.subscriptions.size() >= subscriptionLimit)
        return HTTPMessage(httpstatus::internalServerError);
    if (hasSubscriptionFrom(service, address)) return HTTPMessage(httpstatus::preconditionFailed);
    if (!hasRoomForPath(service, callback.path)) return HTTPMessage(httpstatus::internalServerError);

    auto created = std::make_unique<Subscription>(service, newSid(), address, callback.port, callback.path);
    Subscription& subscription = *created;
    service.subscriptions[subscription.sid] = std::move(created);
    tk::log("subscribe: ", service.serviceType);
    service.sendEvent(subscription, "");
    return grant(subscription, seconds);
}

HTTPAnswer subscribe(Service& service, const HTTPMessage& request, HTTPClient& client) {
    if (request.has("NT")) return subscribeAnew(service, request, client);
    const auto subscription = service.subscriptions.find(request.get("SID"));
    if (subscription == service.subscriptions.end()) return HTTPMessage(httpstatus::preconditionFailed);
    tk::log("resubscribe: ", service.serviceType);
    return grant(*subscription->second, grantedSeconds(request));
}

HTTPMessage unsubscribe(Service& service, const HTTPMessage& request) {
    const auto subscription = service.subscriptions.find(request.get("SID"));
    if (subscription == service.subscriptions.end()) return HTTPMessage(httpstatus::preconditionFailed);
    tk::log("unsubscribe");
    service.subscriptions.erase(subscription);
    return HTTPMessage(httpstatus::ok);
}

}  // namespace gateway
