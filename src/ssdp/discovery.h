#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "upnp/upnpdevice.h"

namespace gateway {

/// One internal interface as discovery sees it.
struct SSDPInterface {
    int socket = 0;             // its SSDP socket
    std::uint32_t address = 0;  // the address that it serves, in network order
    std::string deviceName;     // its name in the kernel
};

/// What discovery asks of the gateway above it.
class SSDPHost {
public:
    virtual ~SSDPHost() = default;
    /// The interface that owns this SSDP socket. The process ends when there is none.
    virtual SSDPInterface findInterface(int ssdpSocket) = 0;
};

/// Answers the searches that arrive on the internal interfaces, and keeps the targets that they can find.
class Discovery {
public:
    /// Lifetime: the host outlives the object.
    explicit Discovery(SSDPHost& host) : host(host) {}
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    /// Called when an SSDP socket is ready: reads one datagram, and answers it if it is a search for
    /// something we have. Replies go out at once, from a port of their own.
    /// Protocol: UPnP Device Architecture 1.0, 1.2.2 and 1.2.3.
    void ssdpRead(int socket, std::uint32_t events);

    /// What searches find: the notification types and unique service names of the whole device tree.
    const AdvertTargets& targets() const { return advertTargets; }
    /// Replaces the targets after the device tree has changed.
    void setTargets(AdvertTargets targets) { advertTargets = std::move(targets); }

private:
    SSDPHost& host;
    AdvertTargets advertTargets;
    std::string answersBegin;          // kept, as it changes only with the address
    std::uint32_t answersAddress = 0;  // for which that is
};

/// Multicasts one NOTIFY for each entry of `table`, in order, from the interface's SSDP socket: ssdp:byebye
/// when `byebye` is true, else ssdp:alive.
/// Errors: logged; the rest are still sent.
/// Protocol: UPnP Device Architecture 1.0, 1.1.2 and 1.1.3.
void sendAdverts(const SSDPInterface& interface, const AdvertTargets& table, bool byebye);

}  // namespace gateway
