// Start-up, the device tree and teardown.

#include "core/testing/gatewayfixture.h"
#include "net/convert.h"
#include "xml/xmlparser.h"

namespace gateway {

namespace {

using GatewayStart = GatewayTest;

TEST_F(GatewayStart, WithAnEmptyStoreLeavesAfter10SecondsWithoutASocket) {
    start();
    EXPECT_EQ(sockets(), 0u);
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 10000);
    EXPECT_EQ(get(), settings(false));
    ASSERT_EQ(loop.bus.requests.size(), 1u);  // only the identity
    EXPECT_FALSE(folder.has("store/upnpm"));  // nothing is written back
    EXPECT_EQ(takeLog(), "");
}

TEST_F(GatewayStart, LeavesTheLoopWhenTheTimeIsUp) {
    start();
    bool wasRunning = false;
    loop.looper.runner().addTimer(
        &wasRunning, [](void* flag) { *static_cast<bool*>(flag) = true; }, 999);
    loop.clock.advance(9990);
    loop.looper.turn(0);
    EXPECT_TRUE(wasRunning);
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 10);  // the leave request is still to come
    loop.clock.advance(10);
    loop.looper.run();  // returns at once
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(GatewayStart, AsksForTheIdentityFirst) {
    start();
    tk::message query;
    query.insert_u32_array(0xFF0001, {65});
    ASSERT_FALSE(loop.bus.requests.empty());
    EXPECT_EQ(loop.bus.requests[0].content, query);
    EXPECT_EQ(loop.bus.requests[0].command, 0xFE000Du);
    EXPECT_EQ(loop.bus.requests[0].timeout, 6000u);
    EXPECT_EQ(gateway->UDN, "UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-0123abcd");
}

TEST_F(GatewayStart, WithoutAnIdentityTheUdnEndsInItsPrefix) {
    loop.bus.answer({65}, 0xFE000D, tk::errorMsg(1, "nobody"));
    start();
    EXPECT_EQ(gateway->UDN, "UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-");
}

TEST_F(GatewayStart, DescribesTheRootDevice) {
    start();
    EXPECT_EQ(gateway->deviceType, "schemas-upnp-org:device:InternetGatewayDevice:1");
    EXPECT_EQ(gateway->friendlyName, "Vantorel Router");
    EXPECT_EQ(gateway->manufacturer, "Vantorel");
    EXPECT_EQ(gateway->modelName, "Quillnet");
    ASSERT_EQ(gateway->icons.size(), 3u);
    int size = 16;
    for (const UpnpIcon& icon : gateway->icons) {
        EXPECT_EQ(icon.mimetype, "image/gif");
        EXPECT_EQ(icon.depth, 8);
        EXPECT_EQ(icon.width, size);
        EXPECT_EQ(icon.height, size);
        EXPECT_EQ(icon.url, "/logo" + std::to_string(size) + ".gif");
        size += 16;
    }
    ASSERT_EQ(gateway->services.size(), 1u);
    const UpnpServiceDescr& service = gateway->services.front();
    EXPECT_EQ(service.serviceType, "urn:schemas-microsoft-com:service:OSInfo:1");
    EXPECT_EQ(service.serviceId, "urn:microsoft-com:serviceId:OSInfo1");
    EXPECT_EQ(service.SCPDURL, "/osinfo.xml");
    EXPECT_EQ(service.controlURL, "/upnp/control/osinfo");
    EXPECT_EQ(service.eventSubURL, "/upnp/event/osinfo");
}

TEST_F(GatewayStart, WithUpnpOnFinishesEverythingBeforeTheLoopRuns) {
    start();
    add(item(1, 2));
    add(item(2, 1));
    set(settings(true));
    takeLog();
    start();  // again, from the stores
    EXPECT_EQ(takeLog(),
              "disable\nstop int: lan\nsendAdverts\nstop ext: wan\nexit\n"
              "add dev: lan\nset type: 2 1\nintr: 0 0\nadd dev: wan\nset type: 1 2\nstart ext: wan\n"
              "initial external addr: 0.0.0.0\nenable\n"
              "dev: 1 add address: 127.0.0.1 (10)\ndev: 1 ip: 127.0.0.1\nintr: 0 2130706433\n"
              "start int: lan 127.0.0.1\nsendAdverts\n"
              "dev: 2 add address: 198.51.100.1 (20)\ndev: 2 ip: 198.51.100.1\nset external ip 198.51.100.1\n"
              "intr: 1 2130706433\n");
    EXPECT_EQ(sockets(), 2u);
    EXPECT_EQ(get(), settings(true));
}

TEST_F(GatewayStart, TeardownWhileOffOnlySaysExit) {
    start();
    loop.bus.requests.clear();
    stop();
    EXPECT_EQ(takeLog(), "exit\n");
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(GatewayStart, TeardownGivesBackSocketsTimersAndSubscriptions) {
    start();
    add(item(1, 2));
    add(item(2, 1));
    set(settings(true));
    loop.bus.requests.clear();
    stop();
    EXPECT_EQ(sockets(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 1u);  // the leave request that disabling makes
    EXPECT_EQ(loop.bus.requestsTo({0}, 3).size(), 2u);
}

using Description = GatewayTest;

TEST_F(Description, EndsInUrlBaseAfterTheDevice) {
    start();
    const XMLParser parser(gateway->describe(toAddress("192.0.2.1")));
    ASSERT_TRUE(parser.ok);
    const XMLNode& root = parser.root.children.at(0);
    ASSERT_EQ(root.children.size(), 3u);
    EXPECT_EQ(root.children[0].name, "specVersion");
    EXPECT_EQ(root.children[1].name, "device");
    EXPECT_EQ(root.children[2], XMLNode("URLBase", "http://192.0.2.1:2828"));
    const XMLNode& device = root.children[1];
    EXPECT_EQ(device.children.back(), XMLNode("presentationURL", "http://192.0.2.1/"));
}

TEST_F(Description, FollowsTheAddressThatItIsAskedFor) {
    start();
    (void)gateway->describe(toAddress("192.0.2.1"));
    const std::string second = gateway->describe(toAddress("203.0.113.1"));
    EXPECT_NE(second.find("<presentationURL>http://203.0.113.1/</presentationURL>"), std::string::npos);
    EXPECT_EQ(second.find("192.0.2.1"), std::string::npos);
}

}  // namespace

}  // namespace gateway
