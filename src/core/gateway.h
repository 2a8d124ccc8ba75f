#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "contract/gateway.h"
#include "core/mappinglist.h"
#include "http/httpserver.h"
#include "services/osinfo.h"
#include "ssdp/discovery.h"
#include "tk/map.h"
#include "tk/object.h"
#include "tk/store.h"
#include "tracking/tracking.h"
#include "upnp/upnprootdevice.h"

namespace gateway {

/// One "upnp interface" item: which side of the gateway a router interface is.
class DevObj final : public tk::Object, public contract::RoleItem {
public:
    std::string getName() const override { return "upnp interface"; }
    void getConfig(tk::message& out, std::uint32_t options) const override;
    void setConfig(const tk::message& in, std::uint32_t options) override;
};

/// The bus handler that holds the "upnp interface" items and the settings, and the root of the UPnP device
/// tree. It leaves the LAN and the router's interfaces to its parts, and answers what they ask.
class Gateway final : public tk::Map<DevObj>,
                      public UpnpRootDevice,
                      private TrackingHost,
                      private SSDPHost,
                      private HTTPHost {
public:
    /// Sends nothing on the bus. `folder` holds the stores and the served files.
    explicit Gateway(const std::string& folder = "/tesk");
    /// Switches UPnP off if it is on: says byebye, removes the rules, logs "exit".
    ~Gateway() override;

    /// Reads the router's identity, builds the device tree, loads items and settings, and switches UPnP on if
    /// the settings say so. Call once, when the handler is on the bus and before the loop runs.
    void init();

    /// The root device description as served at `address`.
    std::string describe(std::uint32_t address) override;

    /// The handler that lists the port mappings, to be served beside this one.
    tk::Handler& mappingList() { return mappings; }

    /// The parts, to be looked at.
    const Tracking& interfaces() const { return tracking; }
    const Discovery& announced() const { return discovery; }
    const HTTPServer& webServer() const { return server; }
    const Service& rootService() const { return osInfo; }

    // Commands of the bus.
    tk::message cmdGet(const tk::message& request) override;
    tk::message cmdSet(const tk::message& request) override;
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;
    tk::message getObject(std::uint32_t id) override;

private:
    // Settings and items.
    void loadSettings();
    void tellServices();
    tk::message add(DevObj* item) override;
    tk::message set(DevObj* old, DevObj* changed) override;
    tk::message remove(DevObj* item) override;
    tk::message load(DevObj* item) override;
    bool isTaken(std::uint32_t interface, std::uint32_t exceptId) const;
    void applyRole(const DevObj& item);
    void dropRole(std::uint32_t interface);

    // The device tree.
    void queryIdentity();
    void describeRoot();
    void addIcons();
    void addOSInfo();

    // What the parts ask.
    tk::Handler& busHandler() override { return *this; }
    bool isEnabled() const override { return current.enabled; }
    bool allowsDisableExternal() const override { return current.allowDisableExternal; }
    const std::string& identity() const override { return routerIdentity; }
    std::vector<RoleItem> roleItems() const override;
    UpnpRootDevice& rootDevice() override { return *this; }
    void dropRootSubscriptions() override;
    SSDPInterface findInterface(int ssdpSocket) override;
    Device* listenerOwner(int listenSocket) override { return tracking.findListener(listenSocket); }
    std::uint32_t addressOf(const Device& device) const override { return device.address; }
    void connectionEnded(const Device& device) override { tracking.connectionEnded(device); }

    tk::Store settings;
    Tracking tracking;
    MappingList mappings{tracking};
    Discovery discovery;
    HTTPServer server;
    OSInfo osInfo;
    contract::Settings current;
    std::string routerIdentity;
};

}  // namespace gateway
