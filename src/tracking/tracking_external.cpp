// The external role: the WAN device in the tree, its services, and its adverts on the internal interfaces.

#include "tracking/tracking.h"

#include <algorithm>
#include <list>
#include <utility>

#include "tk/log.h"
#include "tracking/wandevice.h"

namespace gateway {

void Tracking::startExt(Device* device) {
    if (device->isStarted()) return;
    tk::log("start ext: ", device->displayName());
    std::list<UpnpDevice>& wanDevices = host.rootDevice().devices;
    wanDevices.push_back(makeWanDevice(host.identity(), device->id()));
    addServices(device);
    device->ipConnection->setConnectionStatus(device->connectionStatus());
    advertiseSubtree(wanDevices.back(), false);
    rebuildAdvertTargets();
    device->startedAs = Role::external;
}

void Tracking::stopExt(Device* device) {
    if (device->startedAs != Role::external) return;
    tk::log("stop ext: ", device->displayName());
    std::list<UpnpDevice>& wanDevices = host.rootDevice().devices;
    const std::string udn = wanDeviceUDN(host.identity(), device->id());
    const auto wanDevice = std::find_if(wanDevices.begin(), wanDevices.end(),
                                        [&udn](const UpnpDevice& candidate) { return candidate.UDN == udn; });
    if (wanDevice != wanDevices.end()) {
        advertiseSubtree(*wanDevice, true);
        wanDevices.erase(wanDevice);
        rebuildAdvertTargets();
    }
    removeServices(device);
    device->startedAs = Role::none;
}

void Tracking::addServices(Device* device) {
    const UpnpServiceDescr commonConfig = commonConfigDescr(device->id());
    const UpnpServiceDescr ipConnection = ipConnectionDescr(device->id());
    server.addFile(commonConfig.SCPDURL, "wancommonifcfg.xml");
    server.addFile(ipConnection.SCPDURL, "wanipconn.xml");
    device->commonConfig = std::make_unique<WANCommonInterfaceConfig>(device->record.toMessage());
    device->ipConnection = std::make_unique<WANIPConnection>(device->id(), device->address, refused);
    device->ipConnection->allowDisableExternal = host.allowsDisableExternal();
    server.registerService(device->commonConfig.get(), commonConfig.eventSubURL, commonConfig.controlURL);
    server.registerService(device->ipConnection.get(), ipConnection.eventSubURL, ipConnection.controlURL);
}

void Tracking::removeServices(Device* device) {
    server.removeService(device->commonConfig.get());
    server.removeService(device->ipConnection.get());
    device->commonConfig.reset();
    device->ipConnection.reset();  // removes its port mappings
}

std::vector<const Device*> Tracking::externalDevices() const {
    std::vector<const Device*> found;
    for (const auto& [id, device] : devices)
        if (device->ipConnection) found.push_back(device.get());
    return found;
}

void Tracking::advertiseSubtree(const UpnpDevice& subtree, bool byebye) {
    AdvertTargets targets;
    subtree.collectAdvertTargets(targets);
    for (const auto& [id, device] : devices)
        if (device->startedAs == Role::internal)
            sendAdverts({device->ssdpSocket, device->address, device->name()}, targets, byebye);
}

void Tracking::rebuildAdvertTargets() {
    AdvertTargets targets;
    host.rootDevice().collectAdvertTargets(targets);
    discovery.setTargets(std::move(targets));
}

}  // namespace gateway
