#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "contract/addresses.h"
#include "contract/interfaces.h"
#include "http/httpserver.h"
#include "ssdp/discovery.h"
#include "tk/message.h"
#include "tracking/device.h"
#include "tracking/trackinghost.h"

namespace gateway {

/// How long a daemon that is switched off stays resident.
/// Units: ticks of 10 ms.
constexpr std::uint32_t leaveTicks = 1000;

/// One of the router's IPv4 addresses.
struct Addr {
    std::uint32_t address = 0;    // network order
    std::uint32_t interface = 0;  // id of the interface that has it
    bool stale = false;           // during a full walk: not seen yet; after it: gone
    bool disabled = false;        // tracked, but never used
};

/// Follows the router's interfaces and addresses, and starts and stops the role that an item gives an
/// interface: internal ones get their sockets and adverts, external ones their WAN device and services.
///
/// Roles are started only while UPnP is enabled. Starting a started role or stopping a stopped one does
/// nothing. Sources by subject: tracking_devices, tracking_addresses, tracking_roles, tracking_internal,
/// tracking_external.
class Tracking {
public:
    /// Lifetime: all three outlive the object's last use of a role.
    Tracking(TrackingHost& host, Discovery& discovery, HTTPServer& server);
    Tracking(const Tracking&) = delete;
    Tracking& operator=(const Tracking&) = delete;
    ~Tracking();

    // Interfaces.

    /// UPnP was switched: on, reads the whole interface list and follows it; off, follows it no more.
    void getDevices();
    /// One interface was added, changed or removed.
    void deviceChanged(const tk::message& message);
    /// The status of interfaces: those that `msg` carries records of, or all of them when it carries none.
    void updateDeviceStatus(const tk::message& msg);
    /// What one record says of the status of its interface.
    void applyDeviceStatus(const tk::message& message);
    /// The interface with that id; null when there is none.
    Device* deviceOf(std::uint32_t interface) const;
    /// The interface whose SSDP socket this is. The process ends when there is none.
    Device* findDevice(int socket) const;
    /// The interface whose HTTP listener this is; null when there is none.
    Device* findListener(int socket) const;
    /// A connection of `device` ended: a device that only waited for that goes.
    void connectionEnded(const Device& device);
    /// How many devices only wait for their last connection to end.
    std::size_t retiredCount() const { return retired.size(); }

    // Addresses.

    /// Changes of addresses: those that `msg` carries records of, or a walk over all of them when it carries
    /// none.
    void updateAddresses(const tk::message& msg);
    /// One address was added, changed or deleted.
    void applyAddress(const tk::message& message);
    /// Adds an address to an interface, or removes it, and moves the interface to another address where that
    /// follows.
    /// Byte order: network.
    void setDeviceAddress(std::uint32_t interface, std::uint32_t address, bool add);

    // Roles.

    /// UPnP was switched on: follows status and addresses, and starts every role.
    void enable();
    /// UPnP was switched off: stops every role; the process leaves in 10 s unless it is switched on again.
    void disable();
    /// Starts the role that the device's type gives it. Call only while UPnP is enabled.
    void startRole(Device* device);
    /// Stops the role that was started, whatever the device's type is now.
    void stopRole(Device* device);
    /// The same for one role alone.
    void startInt(Device* device);
    void stopInt(Device* device);
    void startExt(Device* device);
    void stopExt(Device* device);
    /// Timer callback of a started internal role.
    void readvertise(Device* device);
    /// Tells discovery what the device tree consists of now.
    void rebuildAdvertTargets();

private:
    using Devices = std::map<std::uint32_t, std::unique_ptr<Device>>;

    /// The query for all objects of a handler.
    static tk::message getAllFrom(const tk::Path& path);
    void clearDevices();
    void removeDevice(Devices::iterator entry);
    void addDevice(const contract::InterfaceRecord& record);
    void walkAddresses();
    void addAddress(const contract::AddressRecord& record);
    void changeAddress(Addr& stored, const contract::AddressRecord& record);
    void deleteAddress(const contract::AddressRecord& record);
    void moveTo(Device* device, std::uint32_t address);
    void openSockets(Device* device);
    void addServices(Device* device);
    void removeServices(Device* device);
    void advertiseSubtree(const UpnpDevice& subtree, bool byebye);

    TrackingHost& host;
    Discovery& discovery;
    HTTPServer& server;
    Devices devices;  // by interface id
    // Dropped from the map while a connection still refers to them.
    std::vector<std::unique_ptr<Device>> retired;
    std::map<std::uint32_t, Addr> addresses;  // by address object id
};

}  // namespace gateway
