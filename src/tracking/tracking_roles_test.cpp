// The internal and the external role, and switching UPnP as a whole.

#include "tracking/testing/trackingfixture.h"

namespace gateway {

namespace {

class Roles : public TrackingTest {
protected:
    void SetUp() override {
        TrackingTest::SetUp();
        if (captures) listener = std::make_unique<MulticastListener>();
    }
    /// The NTS and NT of everything multicast since the last call.
    std::vector<std::string> heard() {
        std::vector<std::string> adverts;
        for (const std::string& text : listener->texts()) {
            const HTTPMessage advert(text);
            adverts.push_back(advert.get("NTS") + " " + advert.get("NT"));
        }
        return adverts;
    }
    std::vector<std::string> of(const std::string& nts, const std::vector<std::string>& types) {
        std::vector<std::string> adverts;
        for (const std::string& type : types) adverts.push_back(nts + " " + type);
        return adverts;
    }

    const std::vector<std::string> rootTypes = {
        "upnp:rootdevice", "urn:schemas-upnp-org:device:InternetGatewayDevice:1", "uuid:root"};
    const std::vector<std::string> wanTypes = {
        "urn:schemas-upnp-org:device:WANConnectionDevice:1",
        "urn:schemas-upnp-org:device:WANDevice:1",
        "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1",
        "urn:schemas-upnp-org:service:WANIPConnection:1",
        "uuid:UUID-VANTOREL-WAN-CONNECTION-DEVICE-identity-8",
        "uuid:UUID-VANTOREL-WAN-DEVICE-identity-8",
    };
    std::unique_ptr<MulticastListener> listener;
};

TEST_F(Roles, InternalStartOpensBothSocketsAndAnnouncesTheWholeTree) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    EXPECT_EQ(takeLog(),
              "dev: 7 add address: 127.0.0.1 (70)\nadd dev: if7\nset type: 2 7\nintr: 0 2130706433\n"
              "start int: if7 127.0.0.1\nsendAdverts\n");
    EXPECT_GT(device->ssdpSocket, 2);
    EXPECT_GT(device->httpSocket, 2);
    EXPECT_EQ(loop.looper.runner().socketCount(), 2u);
    EXPECT_EQ(heard(), of("ssdp:alive", rootTypes));
}

TEST_F(Roles, InternalStartOfAStartedRoleOnlyLogs) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    heard();
    takeLog();
    const int socket = device->httpSocket;
    tracking.startInt(device);
    EXPECT_EQ(takeLog(), "intr: 1 2130706433\n");
    EXPECT_EQ(device->httpSocket, socket);
    EXPECT_TRUE(heard().empty());
}

TEST_F(Roles, InternalAdvertsComeAgainEvery3570Seconds) {
    addDevice(7, Role::internal, "127.0.0.1");
    heard();
    loop.advance(356999);
    EXPECT_TRUE(heard().empty());
    loop.advance(1);
    EXPECT_EQ(heard(), of("ssdp:alive", rootTypes));
    loop.advance(357000);
    EXPECT_EQ(heard(), of("ssdp:alive", rootTypes));
}

TEST_F(Roles, InternalStopSaysByebyeAndGivesEverythingBack) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    heard();
    takeLog();
    tracking.stopInt(device);
    tracking.stopInt(device);  // already stopped: nothing
    EXPECT_EQ(takeLog(), "stop int: if7\nsendAdverts\n");
    EXPECT_EQ(heard(), of("ssdp:byebye", rootTypes));
    EXPECT_EQ(device->ssdpSocket, 0);
    EXPECT_EQ(device->httpSocket, 0);
    EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(Roles, InternalCountsAsStartedEvenWhenItsSocketsFail) {
    host.items.push_back({7, Role::internal});
    tracking.applyAddress(addressRecord(70, "192.0.2.1", 7));
    tracking.deviceChanged(interfaceRecord(7, "nosuchif"));
    const Device* device = tracking.deviceOf(7);
    EXPECT_TRUE(device->isStarted());
    EXPECT_EQ(device->ssdpSocket, -1);
    EXPECT_EQ(device->httpSocket, -1);
    EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
    EXPECT_EQ(
        takeLog(),
        "dev: 7 add address: 192.0.2.1 (70)\nadd dev: nosuchif\nset type: 2 7\nintr: 0 3221225985\n"
        "start int: nosuchif 192.0.2.1\nudp setsockopt SO_BINDTODEVICE: No such device\n"
        "setsockopt SO_BINDTODEVICE: No such device\nsendAdverts\nadvert sendto failed: Bad file descriptor\n"
        "advert sendto failed: Bad file descriptor\nadvert sendto failed: Bad file descriptor\n");
}

TEST_F(Roles, InternalStopsAsWhatItWasStarted) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    takeLog();
    device->type = Role::external;
    tracking.stopRole(device);
    EXPECT_EQ(takeLog(), "stop int: if7\nsendAdverts\n");
    EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(Roles, ExternalStopsAsWhatItWasStarted) {
    Device* device = addDevice(8, Role::external, "198.51.100.1");
    takeLog();
    device->type = Role::none;
    tracking.stopRole(device);
    EXPECT_EQ(takeLog(), "stop ext: if8\n");
    EXPECT_EQ(device->ipConnection, nullptr);
    EXPECT_TRUE(host.root.devices.empty());
}

TEST_F(Roles, InterfaceWithTwoRolesLeavesNothingBehindWhenItGoes) {
    host.items = {{7, Role::internal}, {7, Role::external}};
    tracking.applyAddress(addressRecord(70, "127.0.0.1", 7));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.deviceChanged(goneRecord(7, "lo"));
    EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(Roles, ExternalStartAnnouncesOnlyItsOwnSubtree) {
    addDevice(7, Role::internal, "127.0.0.1");
    heard();
    takeLog();
    const Device* device = addDevice(8, Role::external, "198.51.100.1");
    EXPECT_EQ(takeLog(),
              "dev: 8 add address: 198.51.100.1 (80)\nadd dev: if8\nset type: 1 8\nstart ext: if8\n"
              "initial external addr: 198.51.100.1\nsendAdverts\n");
    EXPECT_EQ(heard(), of("ssdp:alive", wanTypes));
    EXPECT_TRUE(device->isStarted());
    EXPECT_EQ(discovery.targets().size(), rootTypes.size() + wanTypes.size());  // the whole tree again
}

TEST_F(Roles, ExternalStopSaysByebyeForItsSubtreeAndForgetsIt) {
    addDevice(7, Role::internal, "127.0.0.1");
    Device* device = addDevice(8, Role::external, "198.51.100.1");
    heard();
    takeLog();
    tracking.stopExt(device);
    tracking.stopExt(device);
    EXPECT_EQ(takeLog(), "stop ext: if8\nsendAdverts\n");
    EXPECT_EQ(heard(), of("ssdp:byebye", wanTypes));
    EXPECT_EQ(discovery.targets().size(), rootTypes.size());
    EXPECT_TRUE(host.root.devices.empty());
    EXPECT_EQ(device->ipConnection, nullptr);
    EXPECT_EQ(device->commonConfig, nullptr);
}

TEST_F(Roles, ExternalBuildsItsDevicesAndServices) {
    addDevice(8, Role::external, "198.51.100.1");
    ASSERT_EQ(host.root.devices.size(), 1u);
    const UpnpDevice& wan = host.root.devices.front();
    EXPECT_EQ(wan.deviceType, "schemas-upnp-org:device:WANDevice:1");
    EXPECT_EQ(wan.friendlyName, "WAN Device");
    EXPECT_EQ(wan.UDN, "UUID-VANTOREL-WAN-DEVICE-identity-8");
    ASSERT_EQ(wan.services.size(), 1u);
    EXPECT_EQ(wan.services.front().serviceType, "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1");
    EXPECT_EQ(wan.services.front().serviceId, "urn:upnp-org:serviceId:WANCommonIFC1");
    EXPECT_EQ(wan.services.front().SCPDURL, "/wancommonifc-8.xml");
    ASSERT_EQ(wan.devices.size(), 1u);
    const UpnpDevice& connection = wan.devices.front();
    EXPECT_EQ(connection.deviceType, "schemas-upnp-org:device:WANConnectionDevice:1");
    EXPECT_EQ(connection.friendlyName, "WAN Connection Device");
    EXPECT_EQ(connection.UDN, "UUID-VANTOREL-WAN-CONNECTION-DEVICE-identity-8");
    ASSERT_EQ(connection.services.size(), 1u);
    EXPECT_EQ(connection.services.front().serviceType, "urn:schemas-upnp-org:service:WANIPConnection:1");
    EXPECT_EQ(connection.services.front().serviceId, "urn:upnp-org:serviceId:WANIPConn1");
    EXPECT_EQ(connection.services.front().controlURL, "/upnp/control/wanipconn-8");
}

TEST_F(Roles, TwoExternalInterfacesDifferOnlyByTheirId) {
    addDevice(8, Role::external, "198.51.100.1");
    Device* second = addDevice(9, Role::external, "203.0.113.1");
    ASSERT_EQ(host.root.devices.size(), 2u);
    EXPECT_EQ(host.root.devices.back().UDN, "UUID-VANTOREL-WAN-DEVICE-identity-9");
    tracking.stopExt(tracking.deviceOf(8));
    ASSERT_EQ(host.root.devices.size(), 1u);
    EXPECT_EQ(host.root.devices.front().UDN, "UUID-VANTOREL-WAN-DEVICE-identity-9");
    EXPECT_TRUE(second->isStarted());
}

/// Sends one request to the HTTP listener of an internal interface on the loopback.
class ServedRoles : public Roles {
protected:
    std::string exchange(const std::string& request) { return loop.exchangeOverTcp(2828, request); }
    std::string statusOf(const std::string& method, const std::string& path) {
        const std::string response = exchange(method + " " + path + " HTTP/1.1\r\nHOST: 127.0.0.1\r\n\r\n");
        return response.substr(0, response.find("\r\n"));
    }
};

TEST_F(ServedRoles, ServicesAreReachedUnderTheirOwnUrlsUntilTheRoleStops) {
    addDevice(7, Role::internal, "127.0.0.1");
    Device* first = addDevice(8, Role::external, "198.51.100.1");
    addDevice(9, Role::external, "203.0.113.1");
    const std::string names[] = {"wanipconn-8", "wancommonifc-8", "wanipconn-9", "wancommonifc-9"};
    for (const std::string& name : names) {
        EXPECT_EQ(statusOf("POST", "/upnp/control/" + name), "HTTP/1.1 400 Bad Request")
            << name;  // no envelope
        EXPECT_EQ(statusOf("SUBSCRIBE", "/upnp/event/" + name), "HTTP/1.1 412 Precondition Failed") << name;
    }
    tracking.stopExt(first);
    for (const std::string& name : names) {
        const bool stays = name.ends_with('9');
        EXPECT_EQ(statusOf("POST", "/upnp/control/" + name),
                  stays ? "HTTP/1.1 400 Bad Request" : "HTTP/1.1 404 Not Found");
        EXPECT_EQ(statusOf("SUBSCRIBE", "/upnp/event/" + name),
                  stays ? "HTTP/1.1 412 Precondition Failed" : "HTTP/1.1 404 Not Found");
    }
}

TEST_F(ServedRoles, BothExternalInterfacesAreDescribedByTheSameTwoFiles) {
    files.write("wancommonifcfg.xml", "<common/>");
    files.write("wanipconn.xml", "<connection/>");
    addDevice(7, Role::internal, "127.0.0.1");
    addDevice(8, Role::external, "198.51.100.1");
    addDevice(9, Role::external, "203.0.113.1");
    for (const char* id : {"8", "9"}) {
        EXPECT_TRUE(exchange(std::string("GET /wancommonifc-") + id + ".xml HTTP/1.1\r\n\r\n")
                        .ends_with("<common/>"));
        EXPECT_TRUE(exchange(std::string("GET /wanipconn-") + id + ".xml HTTP/1.1\r\n\r\n")
                        .ends_with("<connection/>"));
    }
}

TEST_F(Roles, ExternalCopiesOnlyTheFlagForDisabling) {
    host.allowDisableExternal = false;
    const Device* device = addDevice(8, Role::external);
    EXPECT_FALSE(device->ipConnection->allowDisableExternal);
}

TEST_F(Roles, ExternalServesAnAddresslessInterfaceToo) {
    EXPECT_TRUE(addDevice(8, Role::external)->isStarted());
}

TEST_F(Roles, EnableSubscribesWalksAndStartsExternalAndInternalInItemOrder) {
    host.enabled = false;
    addDevice(7, Role::internal, "127.0.0.1");
    addDevice(8, Role::external, "198.51.100.1");
    host.items.push_back({99, Role::internal});  // no such interface
    host.enabled = true;
    takeLog();
    loop.bus.requests.clear();
    tracking.enable();
    EXPECT_EQ(takeLog(),
              "enable\nintr: 0 2130706433\nstart int: if7 127.0.0.1\nsendAdverts\nstart ext: if8\n"
              "initial external addr: 198.51.100.1\nsendAdverts\n");
    std::vector<std::pair<tk::Path, std::uint32_t>> sent;
    for (const auto& request : loop.bus.requests)
        sent.emplace_back(request.content.has(1) ? request.content.get_u32_array(1)
                                                 : request.content.get_u32_array(0xFF0001),
                          request.command);
    EXPECT_EQ(sent, (std::vector<std::pair<tk::Path, std::uint32_t>>{
                        {{20, 0}, 2}, {{20, 1}, 2}, {{20, 0}, 0xFE0004}, {{20, 1}, 0xFE0004}}));
}

TEST_F(Roles, DisableStopsEverythingAndLeavesTheLoop10SecondsLater) {
    addDevice(7, Role::internal, "127.0.0.1");
    addDevice(8, Role::external, "198.51.100.1");
    takeLog();
    loop.bus.requests.clear();
    host.enabled = false;
    tracking.disable();
    EXPECT_EQ(takeLog(), "disable\nstop int: if7\nsendAdverts\nstop ext: if8\n");
    EXPECT_EQ(host.rootSubscriptionsDropped, 1);
    ASSERT_EQ(loop.bus.requests.size(), 2u);
    EXPECT_EQ(loop.bus.requests[0].content.get_u32_array(1), (tk::Path{20, 0}));
    EXPECT_EQ(loop.bus.requests[1].content.get_u32_array(1), (tk::Path{20, 1}));
    EXPECT_EQ(loop.bus.requests[0].command, 3u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 1u);  // the leave request
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 10000);
    host.enabled = true;
    tracking.enable();
    EXPECT_NE(loop.looper.runner().untilNextTimer(), 10000);
}

}  // namespace

}  // namespace gateway
