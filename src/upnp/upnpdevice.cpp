#include "upnp/upnpdevice.h"

#include <utility>

namespace gateway {

namespace {

void addUnlessEmpty(XMLNode& node, const char* name, const std::string& value) {
    if (!value.empty()) node.addSubNode(name, value);
}

}  // namespace

XMLNode UpnpDevice::buildDescription() const {
    XMLNode device("device");
    addTexts(device);
    addIcons(device);
    addServices(device);
    addDevices(device);
    addUnlessEmpty(device, "presentationURL", presentationURL);
    return device;
}

void UpnpDevice::addTexts(XMLNode& device) const {
    device.addSubNode("deviceType", "urn:" + deviceType);
    device.addSubNode("friendlyName", friendlyName);
    device.addSubNode("manufacturer", manufacturer);
    addUnlessEmpty(device, "manufacturerURL", manufacturerURL);
    addUnlessEmpty(device, "modelDescription", modelDescription);
    device.addSubNode("modelName", modelName);
    addUnlessEmpty(device, "modelNumber", modelNumber);
    addUnlessEmpty(device, "modelURL", modelURL);
    addUnlessEmpty(device, "serialNumber", serialNumber);
    device.addSubNode("UDN", "uuid:" + UDN);
    addUnlessEmpty(device, "UPC", UPC);
}

void UpnpDevice::addIcons(XMLNode& device) const {
    if (icons.empty()) return;
    XMLNode list("iconList");
    for (const UpnpIcon& icon : icons) list.addSubNode(icon.buildDescription());
    device.addSubNode(std::move(list));
}

void UpnpDevice::addServices(XMLNode& device) const {
    XMLNode list("serviceList");  // written even when empty
    for (const UpnpServiceDescr& service : services) list.addSubNode(service.buildDescription());
    device.addSubNode(std::move(list));
}

void UpnpDevice::addDevices(XMLNode& device) const {
    if (devices.empty()) return;
    XMLNode list("deviceList");
    for (const UpnpDevice& embedded : devices) list.addSubNode(embedded.buildDescription());
    device.addSubNode(std::move(list));
}

void UpnpDevice::collectAdvertTargets(AdvertTargets& targets) const {
    const std::string uuid = "uuid:" + UDN;
    const std::string type = "urn:" + deviceType;
    targets.emplace(uuid, uuid);
    targets.emplace(type, uuid + "::" + type);
    for (const UpnpServiceDescr& service : services)
        targets.emplace(service.serviceType, uuid + "::" + service.serviceType);
    for (const UpnpDevice& embedded : devices) embedded.collectAdvertTargets(targets);
}

}  // namespace gateway
