#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ssdp/testing/multicastlistener.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"
#include "tracking/testing/recordmakers.h"
#include "tracking/tracking.h"

namespace gateway {

/// A stand-in for the gateway above tracking: items and settings are plain fields.
class FakeGateway final : public TrackingHost, public SSDPHost, public HTTPHost {
public:
    explicit FakeGateway(tk::Looper& looper) : looper(looper) {
        root.UDN = "root";
        root.deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
    }

    tk::Handler& busHandler() override { return looper; }
    bool isEnabled() const override { return enabled; }
    bool allowsDisableExternal() const override { return allowDisableExternal; }
    const std::string& identity() const override { return routerIdentity; }
    std::vector<RoleItem> roleItems() const override { return items; }
    UpnpRootDevice& rootDevice() override { return root; }
    void dropRootSubscriptions() override { ++rootSubscriptionsDropped; }
    SSDPInterface findInterface(int socket) override {
        const Device* device = tracking->findDevice(socket);
        return {device->ssdpSocket, device->address, device->name()};
    }
    Device* listenerOwner(int socket) override { return tracking->findListener(socket); }
    std::uint32_t addressOf(const Device& device) const override { return device.address; }
    std::string describe(std::uint32_t) override { return "<root/>"; }
    void connectionEnded(const Device& device) override { tracking->connectionEnded(device); }

    tk::Looper& looper;
    Tracking* tracking = nullptr;
    bool enabled = true;
    bool allowDisableExternal = true;
    std::string routerIdentity = "identity";
    std::vector<RoleItem> items;
    UpnpRootDevice root;
    int rootSubscriptionsDropped = 0;
};

/// A tracking object between a scripted bus and the loopback of a private network.
class TrackingTest : public testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
        host.tracking = &tracking;
        tracking.rebuildAdvertTargets();
        testing::internal::CaptureStdout();
        captures = true;
    }
    void TearDown() override {
        if (!captures) return;
        for (std::uint32_t id = 0; id < 20; ++id)
            if (Device* device = tracking.deviceOf(id)) tracking.stopRole(device);
        testing::internal::GetCapturedStdout();
    }

    std::string takeLog() {
        std::string log = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return log;
    }
    /// Adds an interface with a role and perhaps an address, as tracking learns of it while UPnP is on.
    Device* addDevice(std::uint32_t id, Role role, const char* address = nullptr) {
        host.items.push_back({id, role});
        if (address) tracking.applyAddress(addressRecord(id * 10, address, id));
        tracking.deviceChanged(interfaceRecord(id, "lo", "if" + std::to_string(id)));
        return tracking.deviceOf(id);
    }
    static std::string dotted(const Device* device) { return ipToString(device->address); }
    static std::string ipToString(std::uint32_t address) { return inet_ntoa({address}); }

    tk::testing::TestLoop loop;
    FakeGateway host{loop.looper};
    Discovery discovery{host};
    tk::testing::Folder files;
    HTTPServer server{host, files.path + "/"};
    Tracking tracking{host, discovery, server};
    bool captures = false;
};

}  // namespace gateway
