#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/fd.h"
#include "tk/timer.h"
#include "upnp/service.h"
#include "xml/xmlnode.h"

namespace gateway {

class Subscription;

/// One NOTIFY on its way to one subscriber, over a connection of its own: it connects, sends, and waits for
/// the reply. It ends itself on the reply, on a failure, or 30 s after its start. The subscription stays in
/// any case.
///
/// The message and its SEQ number are made only once the connection is up. So the numbers follow the order in
/// which connections complete, and a delivery that never connects takes none.
class Service::Event {
public:
    /// Takes over a connecting socket, and starts to wait. An empty variable name means all evented
    /// variables.
    /// Lifetime: the service owns the event. The subscription and the variable are kept by name, because they
    /// may be gone when it connects.
    Event(Service& service, tk::Fd connecting, std::string sid, std::string varName);
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    ~Event();

    /// The SID of its subscription.
    const std::string& subscriber() const { return sid; }
    /// The length of the callback path in the message that was sent; 0 before that.
    std::size_t sentPath() const { return pathSize; }

private:
    void connected(int socket, std::uint32_t events);
    void replied(int socket, std::uint32_t events);
    void timedOut();
    void finish();

    [[nodiscard]] bool sendNotify();
    [[nodiscard]] bool collectProperties(XMLNode& set) const;
    [[nodiscard]] bool collectOne(XMLNode& set) const;
    void collectAll(XMLNode& set) const;
    [[nodiscard]] bool write(const std::string& text);

    Service& service;
    tk::Fd socket;
    const std::string sid;
    const std::string varName;
    std::size_t pathSize = 0;
    tk::Timer<Event, &Event::timedOut> deliveryTimer{*this};
    tk::Watch watch;  // leaves the loop before the descriptor closes
};

}  // namespace gateway
