#include "upnp/event.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <utility>

#include "http/httpmessage.h"
#include "net/convert.h"
#include "net/sockets.h"
#include "tk/log.h"
#include "upnp/subscription.h"
#include "xml/xmlwriter.h"

namespace gateway {

namespace {

constexpr std::uint32_t deliveryTicks = 3000;         // 30 s for connecting, sending and the reply
constexpr std::chrono::seconds deliveryPatience{30};  // after sending, also when the event is dropped before

// Deliveries on their way at once: the limits of a service and of one subscriber, and what a subscriber may
// have even when others have taken all. So dead subscribers do not keep events from live ones.
constexpr std::size_t deliveryLimit = 1000;
constexpr std::size_t subscriberLimit = 64;
constexpr std::size_t fairShare = 10;

constexpr std::size_t replySize = 4096;  // what one read takes
constexpr std::size_t statusOffset = 9;  // after "HTTP/1.1 "
constexpr std::size_t statusLength = 3;

/// Starts to connect to a subscriber.
/// Errors: the result holds no descriptor; logged.
tk::Fd startConnecting(std::uint32_t address, std::uint16_t port) {
    tk::Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen()) {
        tk::log("tcp socket: ", tk::errorText());
        return socket;
    }
    if (::fcntl(socket.get(), F_SETFL, O_NONBLOCK) != 0) {
        tk::log("fcntl O_NONBLOCK: ", tk::errorText());
        return tk::Fd();
    }
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    target.sin_addr.s_addr = address;
    (void)tk::flushLog();
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0)
        return socket;
    if (errno == EINPROGRESS) return socket;
    tk::log("tcp connect: ", tk::errorText());
    return tk::Fd();
}

void addProperty(XMLNode& set, const std::string& name, const std::string& value) {
    tk::log("notify: ", name, " = '", value, "'");
    XMLNode property("e:property");
    property.addSubNode(name, value);
    set.addSubNode(std::move(property));
}

HTTPMessage makeNotify(Subscription& subscription, std::string body) {
    HTTPMessage notify;
    notify.title = "NOTIFY " + subscription.path + " HTTP/1.1";
    notify.add("HOST", ipToString(subscription.address) + ":" + toString(std::uint32_t{subscription.port}));
    notify.add("CONTENT-TYPE", "text/xml");
    notify.add("CONTENT-LENGTH", toString(static_cast<std::uint32_t>(body.size())));
    notify.add("NT", "upnp:event");
    notify.add("NTS", "upnp:propchange");
    notify.add("SID", subscription.sid);
    notify.add("SEQ", toString(subscription.takeSeq()));
    notify.body = std::move(body);
    return notify;
}

}  // namespace

bool Service::mayDeliverTo(const Subscription& subscription) const {
    const auto own = deliveries.find(subscription.sid);
    return own == deliveries.end() ||
           own->second < (events.size() < deliveryLimit ? subscriberLimit : fairShare);
}

/// Drops the events whose subscription is gone. They would be dropped on connecting, but must not crowd out
/// the others until then.
void Service::dropOrphanedEvents() {
    const auto precedes = [](const auto& left, const auto& right) { return left.first < right.first; };
    if (std::includes(subscriptions.begin(), subscriptions.end(), deliveries.begin(), deliveries.end(),
                      precedes))
        return;
    std::erase_if(events, [this](const auto& entry) {
        if (subscriptions.contains(entry.second->subscriber())) return false;
        tk::log("notify timeout");
        return true;
    });
}

void Service::sendEvent(const Subscription& subscription, const std::string& varName) {
    if (events.size() >= deliveryLimit) dropOrphanedEvents();
    if (!mayDeliverTo(subscription))
        return tk::log("notify dropped: too many are on their way to ", ipToString(subscription.address));
    tk::Fd socket = startConnecting(subscription.address, subscription.port);
    if (!socket.isOpen()) return;
    const int descriptor = socket.get();
    events[descriptor] = std::make_unique<Event>(*this, std::move(socket), subscription.sid, varName);
}

Service::Event::Event(Service& service, tk::Fd connecting, std::string sid, std::string varName)
    : service(service), socket(std::move(connecting)), sid(std::move(sid)), varName(std::move(varName)) {
    watch.start<Event, &Event::connected>(socket.get(), *this, tk::writable);
    deliveryTimer.arm(deliveryTicks);
    ++service.deliveries[this->sid];
}

Service::Event::~Event() {
    const auto own = service.deliveries.find(sid);
    if (--own->second == 0) service.deliveries.erase(own);
}

void Service::Event::connected(int, std::uint32_t) {
    watch.stop();
    if (!sendNotify()) return timedOut();  // deletes this
    watch.start<Event, &Event::replied>(socket.get(), *this, tk::readable);
}

/// Builds the message and sends it. True when all of it has gone out.
bool Service::Event::sendNotify() {
    const auto subscription = service.subscriptions.find(sid);
    if (subscription == service.subscriptions.end()) return false;
    XMLNode set("e:propertyset");
    set.addProperty("xmlns:e", "urn:schemas-upnp-org:event-1-0");
    if (!collectProperties(set)) return false;
    pathSize = subscription->second->path.size();
    return write(makeNotify(*subscription->second, toXmlDocument(set)).toString());
}

bool Service::Event::collectProperties(XMLNode& set) const {
    if (!varName.empty()) return collectOne(set);
    collectAll(set);
    return true;
}

bool Service::Event::collectOne(XMLNode& set) const {
    const auto variable = service.variables.find(varName);
    if (variable == service.variables.end()) {
        tk::log("unknown variable");
        return false;
    }
    std::string value;
    if (!variable->second->getValue(value)) {
        tk::log("variable has no value");
        return false;
    }
    addProperty(set, varName, value);
    return true;
}

void Service::Event::collectAll(XMLNode& set) const {
    for (const auto& [name, variable] : service.variables) {
        std::string value;
        if (variable->evented && variable->getValue(value)) addProperty(set, name, value);
    }
}

/// Sends the whole message at once. That does not wait, although the socket is blocking again.
bool Service::Event::write(const std::string& text) {
    if (::fcntl(socket.get(), F_SETFL, 0) != 0) {
        tk::log("fcntl 0: ", tk::errorText());
        return false;
    }
    limitUntaken(socket.get(), deliveryPatience);
    if (sendWhole(socket.get(), text)) return true;
    tk::log("write failed");
    return false;
}

void Service::Event::replied(int, std::uint32_t) {
    char bytes[replySize];
    const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (length <= 0) {
        tk::log("notify reply read failed");
        watch.stop();  // it would stay ready; the delivery timer ends the event
        return;
    }
    const HTTPMessage reply(std::string_view(bytes, static_cast<std::size_t>(length)));
    if (slice(reply.title, statusOffset, statusLength) != "200") tk::log("bad notify reply: ", reply.title);
    (void)tk::flushLog();
    finish();  // deletes this
}

void Service::Event::timedOut() {
    tk::log("notify timeout");
    finish();  // deletes this
}

/// Leaves the service's table before the descriptor closes and can become another event's key.
void Service::Event::finish() {
    const auto own = service.events.extract(socket.get());  // deletes this at the end of the function
}

}  // namespace gateway
