#pragma once

#include <list>
#include <map>
#include <string>

#include "upnp/upnpdevicedescr.h"
#include "xml/xmlnode.h"

namespace gateway {

/// What discovery announces of a device tree: maps a notification type (NT) to its unique service names
/// (USN).
using AdvertTargets = std::multimap<std::string, std::string>;

/// One device of the tree that the daemon presents, with its embedded devices and the entries of its
/// services. Plain data: descriptions and announcements are built anew on each request. A copy is deep.
class UpnpDevice : public UpnpDeviceDescr {
public:
    /// A device with the default texts, or a copy of the given ones.
    UpnpDevice() = default;
    explicit UpnpDevice(const UpnpDeviceDescr& description) : UpnpDeviceDescr(description) {}
    UpnpDevice(const UpnpDevice&) = default;
    UpnpDevice& operator=(const UpnpDevice&) = default;
    virtual ~UpnpDevice() = default;

    /// The element "device", including the embedded devices.
    virtual XMLNode buildDescription() const;

    /// Adds what discovery announces of this device, its services and its embedded devices.
    virtual void collectAdvertTargets(AdvertTargets& targets) const;

    /// The embedded devices and the entries of the device's own services, in the order of the description.
    std::list<UpnpDevice> devices;
    std::list<UpnpServiceDescr> services;

private:
    void addTexts(XMLNode& device) const;
    void addIcons(XMLNode& device) const;
    void addServices(XMLNode& device) const;
    void addDevices(XMLNode& device) const;
};

}  // namespace gateway
