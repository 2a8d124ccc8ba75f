#pragma once

#include <cstdint>
#include <string>

#include "tk/fd.h"
#include "tk/timer.h"
#include "upnp/service.h"
#include "xml/xmlnode.h"

namespace gateway {

class Subscription;

/// One NOTIFY on its way to one subscriber, over a connection of its own: connecting, then waiting for the
/// reply. It ends itself with the reply, with a failure, or 30 s after its start. Whatever happens to it, the
/// subscription stays.
///
/// What is sent is put together only when the connection stands, and so is its SEQ number: numbers follow the
/// order in which connections complete, and a delivery that never completes takes none.
class Service::Event {
public:
    /// Takes over a socket that is connecting, and starts to wait. An empty variable name means all evented
    /// variables.
    /// Lifetime: the service owns the event. Subscription and variable are known by name, for they may be
    /// gone by then.
    Event(Service& service, tk::Fd connecting, std::string sid, std::string varName);
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /// The SID of the subscription that it is for.
    const std::string& subscriber() const { return sid; }

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
    tk::Timer<Event, &Event::timedOut> deliveryTimer{*this};
    tk::Watch watch;  // leaves the loop before the descriptor closes
};

}  // namespace gateway
