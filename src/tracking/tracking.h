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

/// How long the daemon keeps running after UPnP is switched off.
/// Units: ticks of 10 ms.
constexpr std::uint32_t leaveTicks = 1000;

/// One of the router's IPv4 addresses.
struct Addr {
    std::uint32_t address = 0;    // network order
    std::uint32_t interface = 0;  // id of the interface that has it
    bool stale = false;           // true during a full walk until seen; true after it when gone
    bool disabled = false;        // true when tracked but never used
};

/// Follows the router's interfaces and addresses, and starts and stops the roles that items give to
/// interfaces. An internal interface gets sockets and adverts, an external one its WAN device and services.
///
/// Roles start only while UPnP is enabled. Starting a started role or stopping a stopped one does nothing.
/// Sources, by subject: tracking_devices, tracking_addresses, tracking_roles, tracking_internal,
/// tracking_external.
class Tracking {
public:
    /// Lifetime: all three live until no role is used any more.
    Tracking(TrackingHost& host, Discovery& discovery, HTTPServer& server);
    Tracking(const Tracking&) = delete;
    Tracking& operator=(const Tracking&) = delete;
    ~Tracking();

    // Interfaces.

    /// UPnP was switched. When it is on, reads the whole interface list and follows changes; when off, stops
    /// following.
    void getDevices();
    /// An interface was added, changed or removed.
    void deviceChanged(const tk::message& message);
    /// Updates the status of the interfaces that `msg` has records of, or of all when it has none.
    void updateDeviceStatus(const tk::message& msg);
    /// Updates the status of one record's interface.
    void applyDeviceStatus(const tk::message& message);
    /// The interfaces with a started external role, by id.
    std::vector<const Device*> externalDevices() const;
    /// The interface with that id; null when there is none.
    Device* deviceOf(std::uint32_t interface) const;
    /// The interface that owns this SSDP socket. The process ends when there is none.
    Device* findDevice(int socket) const;
    /// The interface that owns this HTTP listener; null when there is none.
    Device* findListener(int socket) const;
    /// A connection of `device` ended. A removed device is destroyed with its last connection.
    void connectionEnded(const Device& device);
    /// How many removed devices still wait for their last connection to end.
    std::size_t retiredCount() const { return retired.size(); }

    // Addresses.

    /// Updates the addresses that `msg` has records of, or walks over all of them when it has none.
    void updateAddresses(const tk::message& msg);
    /// An address was added, changed or deleted.
    void applyAddress(const tk::message& message);
    /// Adds an address to an interface when `add` is true, else removes it. Moves the interface to another
    /// address if that changes the choice.
    /// Byte order: network.
    void setDeviceAddress(std::uint32_t interface, std::uint32_t address, bool add);

    // Roles.

    /// UPnP was switched on: follows status and addresses, and starts all roles.
    void enable();
    /// UPnP was switched off: stops all roles. The process ends after 10 s unless UPnP is switched on again.
    void disable();
    /// Starts the role of the device's type. Call only while UPnP is enabled.
    void startRole(Device* device);
    /// Stops the started role, whatever the device's type is now.
    void stopRole(Device* device);
    /// The same for one particular role.
    void startInt(Device* device);
    void stopInt(Device* device);
    void startExt(Device* device);
    void stopExt(Device* device);
    /// Timer callback of a started internal role.
    void readvertise(Device* device);
    /// Gives discovery the targets of the present device tree.
    void rebuildAdvertTargets();
    /// The mappings that external interfaces refused, also those whose role has ended since.
    const RefusedMappings& refusedMappings() const { return refused; }

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
    RefusedMappings refused;
    Devices devices;  // by interface id
    // Removed devices that a connection still refers to.
    std::vector<std::unique_ptr<Device>> retired;
    std::map<std::uint32_t, Addr> addresses;  // by address object id
};

}  // namespace gateway
