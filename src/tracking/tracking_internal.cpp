// The internal role: sockets, and adverts and their repetition.

#include "tracking/tracking.h"

#include <arpa/inet.h>
#include <unistd.h>

#include "contract/ports.h"
#include "http/httpserver.h"
#include "net/convert.h"
#include "net/sockets.h"
#include "tk/log.h"
#include "tk/runner.h"

namespace gateway {

namespace {

constexpr std::uint32_t advertiseTicks = 357000;  // 3570 s: 30 s before the advertised max-age of 3600 s ends

SSDPInterface ssdpInterface(const Device& device) {
    return {device.ssdpSocket, device.address, device.name()};
}

void closeSocket(int& socket) {
    tk::getRunner()->removeSocket(socket);
    if (socket > 0) ::close(socket);
    socket = 0;
}

}  // namespace

void Tracking::startInt(Device* device) {
    tk::log("intr: ", device->isStarted(), " ", ntohl(device->address));
    if (device->isStarted() || device->address == 0) return;
    tk::log("start int: ", device->displayName(), " ", ipToString(device->address));
    openSockets(device);
    tk::getRunner()->addTimer<Device, &Device::readvertise>(device, advertiseTicks);
    sendAdverts(ssdpInterface(*device), discovery.targets(), false);
    device->startedAs = Role::internal;
}

void Tracking::openSockets(Device* device) {
    // A socket that failed to open is -1, which the runner never watches. The role counts as started all the
    // same.
    tk::Runner& runner = *tk::getRunner();
    device->ssdpSocket =
        openSsdpSocket(device->name().c_str(), static_cast<int>(device->index()), device->address);
    runner.addSocket<Discovery, &Discovery::ssdpRead>(device->ssdpSocket, &discovery, tk::readable);
    device->httpSocket = openTcpListener(device->name().c_str(), contract::httpPort);
    runner.addSocket<HTTPServer, &HTTPServer::accept>(device->httpSocket, &server, tk::readable,
                                                      tk::Runner::Priority::urgent);
}

void Tracking::readvertise(Device* device) {
    sendAdverts(ssdpInterface(*device), discovery.targets(), false);
    tk::getRunner()->addTimer<Device, &Device::readvertise>(device, advertiseTicks);
}

void Tracking::stopInt(Device* device) {
    if (device->startedAs != Role::internal) return;
    tk::log("stop int: ", device->displayName());
    sendAdverts(ssdpInterface(*device), discovery.targets(), true);
    tk::getRunner()->removeTimer<Device, &Device::readvertise>(device);
    closeSocket(device->ssdpSocket);
    closeSocket(device->httpSocket);
    device->startedAs = Role::none;
}

}  // namespace gateway
