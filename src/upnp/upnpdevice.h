#pragma once

#include <list>
#include <map>
#include <string>

#include "upnp/upnpdevicedescr.h"
#include "xml/xmlnode.h"

namespace gateway {

/// What discovery announces of a device tree: from notification type (NT) to unique service name (USN). One
/// type may have several names.
using AdvertTargets = std::multimap<std::string, std::string>;

/// One device of the tree that the daemon presents, with its embedded devices and the entries of its
/// services. Plain data: descriptions and announcements are made afresh whenever they are asked for. A copy
/// is deep.
class UpnpDevice : public UpnpDeviceDescr {
public:
    /// A device with the default texts, or with a copy of those that are given.
    UpnpDevice() = default;
    explicit UpnpDevice(const UpnpDeviceDescr& description) : UpnpDeviceDescr(description) {}
    UpnpDevice(const UpnpDevice&) = default;
    UpnpDevice& operator=(const UpnpDevice&) = default;
    virtual ~UpnpDevice() = default;

    /// The element "device", with the embedded devices inside.
    virtual XMLNode buildDescription() const;

    /// Adds what discovery announces of this device, its services and its embedded devices. Nothing is
    /// removed.
    virtual void collectAdvertTargets(AdvertTargets& targets) const;

    /// The embedded devices, and the entries of the device's own services, in the order of the description.
    std::list<UpnpDevice> devices;
    std::list<UpnpServiceDescr> services;

private:
    void addTexts(XMLNode& device) const;
    void addIcons(XMLNode& device) const;
    void addServices(XMLNode& device) const;
    void addDevices(XMLNode& device) const;
};

}  // namespace gateway
