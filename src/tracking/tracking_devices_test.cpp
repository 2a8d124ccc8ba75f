// The list of interfaces, its changes, and their status.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tracking/testing/trackingfixture.h"

namespace gateway {

namespace {

using Devices = TrackingTest;

TEST_F(Devices, AreAddedChangedAndRemovedWithALogLineEach) {
    tracking.deviceChanged(interfaceRecord(7, "lo", "uplink"));
    tracking.deviceChanged(interfaceRecord(7, "lo", "renamed"));
    EXPECT_EQ(tracking.deviceOf(7)->displayName(), "renamed");
    tracking.deviceChanged(goneRecord(7, "renamed"));
    EXPECT_EQ(takeLog(), "add dev: uplink\nset dev: renamed (7)\nrem dev: renamed\n");
    EXPECT_EQ(tracking.deviceOf(7), nullptr);
}

TEST_F(Devices, AreGoneWithAnyBitOf0x82) {
    for (const std::uint32_t flags : {0x82u, 0x80u, 0x02u, 0xFFu}) {
        tracking.deviceChanged(interfaceRecord(7, "lo"));
        tracking.deviceChanged(goneRecord(7, "lo", flags));
        EXPECT_EQ(tracking.deviceOf(7), nullptr) << flags;
    }
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.deviceChanged(goneRecord(7, "lo", 0x7D));
    EXPECT_NE(tracking.deviceOf(7), nullptr);
}

TEST_F(Devices, RemovalOfAnUnknownOneIsOnlyLogged) {
    tracking.deviceChanged(goneRecord(9, "ghost"));
    EXPECT_EQ(takeLog(), "rem dev: ghost\n");
}

TEST_F(Devices, AChangedRecordKeepsStatusAddressesAndRole) {
    Device* device = addDevice(7, Role::external, "198.51.100.1");
    tracking.applyDeviceStatus(statusRecord(7, false, true));
    tk::message changed = interfaceRecord(7, "lo", "other");
    changed.insert_bool(0x1000E, false);
    changed.insert_bool(0xFE000A, true);
    tracking.deviceChanged(changed);
    EXPECT_EQ(tracking.deviceOf(7), device);
    EXPECT_TRUE(device->isStarted());
    EXPECT_TRUE(device->running);
    EXPECT_FALSE(device->disabled);
    EXPECT_EQ(dotted(device), "198.51.100.1");
}

TEST_F(Devices, TakeTheRoleOfTheItemThatNamesThem) {
    addDevice(7, Role::external);
    EXPECT_EQ(takeLog(), "add dev: if7\nset type: 1 7\nstart ext: if7\ninitial external addr: 0.0.0.0\n");
    EXPECT_TRUE(tracking.deviceOf(7)->isStarted());
}

TEST_F(Devices, TakeTheRoleButDoNotStartItWhileUpnpIsOff) {
    host.enabled = false;
    addDevice(7, Role::external);
    EXPECT_EQ(takeLog(), "add dev: if7\nset type: 1 7\n");
    EXPECT_EQ(tracking.deviceOf(7)->type, Role::external);
    EXPECT_FALSE(tracking.deviceOf(7)->isStarted());
}

TEST_F(Devices, StatusComesOnlyFromStatusRecordsAndKeepsWhatTheyLack) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    takeLog();
    tracking.applyDeviceStatus(statusRecord(7, true, true));
    tk::message partial;
    partial.insert_u32(0xFE0001, 7);
    partial.insert_bool(0xFE000A, false);
    tracking.applyDeviceStatus(partial);
    EXPECT_EQ(takeLog(), "dev: 7 disabled: 1 running: 1\ndev: 7 disabled: 0 running: 1\n");
    EXPECT_TRUE(tracking.deviceOf(7)->running);
    tracking.applyDeviceStatus(statusRecord(7, true, true));
    tk::message running;
    running.insert_u32(0xFE0001, 7);
    running.insert_bool(0x1000E, false);
    tracking.applyDeviceStatus(running);
    EXPECT_EQ(takeLog(), "dev: 7 disabled: 1 running: 1\ndev: 7 disabled: 1 running: 0\n");
    tracking.applyDeviceStatus(statusRecord(8, true, true));  // unknown
    EXPECT_EQ(takeLog(), "");
}

TEST_F(Devices, StatusMovesTheConnectionStatus) {
    const Device* device = addDevice(7, Role::external);
    EXPECT_EQ(device->ipConnection->getVar("ConnectionStatus"), "Connecting");
    const std::tuple<bool, bool, const char*> cases[] = {{false, true, "Connected"},
                                                         {true, true, "Disconnected"},
                                                         {true, false, "Disconnected"},
                                                         {false, false, "Connecting"}};
    for (const auto& [disabled, running, status] : cases) {
        tracking.applyDeviceStatus(statusRecord(7, disabled, running));
        EXPECT_EQ(device->ipConnection->getVar("ConnectionStatus"), status);
    }
}

TEST_F(Devices, StatusIsWalkedWhenAMessageCarriesNone) {
    loop.bus.answer({20, 0}, 0xFE0004, carrying({statusRecord(7, false, true)}));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.updateDeviceStatus({});
    const auto walks = loop.bus.requestsTo({20, 0}, 0xFE0004);
    ASSERT_EQ(walks.size(), 1u);
    tk::message query;
    query.insert_u32_array(0xFF0001, {20, 0});
    query.insert_u32(0xFF0007, 0xFE0004);
    EXPECT_EQ(walks[0].content, query);
    EXPECT_EQ(walks[0].timeout, 3000u);
    EXPECT_TRUE(tracking.deviceOf(7)->running);
    tracking.updateDeviceStatus(carrying({statusRecord(7, true, false)}));
    EXPECT_EQ(loop.bus.requestsTo({20, 0}, 0xFE0004).size(), 1u);
    EXPECT_TRUE(tracking.deviceOf(7)->disabled);
}

tk::message page(std::vector<tk::message> records, std::uint32_t next) {
    tk::message reply = carrying(std::move(records));
    if (next != 0) reply.insert_u32(0xFE0003, next);
    return reply;
}

TEST_F(Devices, AreReadPageByPageEvenPastAPageWithoutRecords) {
    loop.bus.answer({20, 0}, 1, [](const tk::message& request) {
        switch (request.get_u32(0xFE0003, 0)) {
            case 0:
                return page({interfaceRecord(1, "lo", "a")}, 5);
            case 5:
                return page({}, 9);
            default:
                return page({interfaceRecord(9, "lo", "b"), interfaceRecord(3, "lo", "c")}, 0);
        }
    });
    tracking.getDevices();
    EXPECT_EQ(takeLog(), "add dev: a\nadd dev: b\nadd dev: c\n");
    const auto requests = loop.bus.requestsTo({20, 0}, 1);
    ASSERT_EQ(requests.size(), 3u);
    tk::message first;
    first.insert_u32_array(0xFF0001, {20, 0});
    EXPECT_EQ(requests[0].content, first);
    EXPECT_EQ(requests[0].timeout, 6000u);
    first.insert_u32(0xFE0003, 5);
    EXPECT_EQ(requests[1].content, first);
    first.insert_u32(0xFE0003, 9);
    EXPECT_EQ(requests[2].content, first);
}

TEST_F(Devices, AreSubscribedBeforeTheirListIsRead) {
    tracking.getDevices();
    ASSERT_GE(loop.bus.requests.size(), 2u);
    tk::message subscription;
    subscription.insert_u32_array(1, {20, 0});
    subscription.insert_u32(2, 0x10004);
    subscription.insert_message_array(3, {tk::message()});
    subscription.insert_u32_array(0xFF0001, {0});
    EXPECT_EQ(loop.bus.requests[0].content, subscription);
    EXPECT_EQ(loop.bus.requests[0].command, 2u);
    EXPECT_EQ(loop.bus.requests[1].command, 1u);
    host.enabled = false;
    tracking.getDevices();
    EXPECT_EQ(loop.bus.requests.back().content, subscription);
    EXPECT_EQ(loop.bus.requests.back().command, 3u);
}

TEST_F(Devices, AListThatLeadsBackToItselfEnds) {
    loop.bus.answer({20, 0}, 1, page({}, 5));
    tracking.getDevices();
    EXPECT_EQ(loop.bus.requestsTo({20, 0}, 1).size(), 2u);
}

TEST_F(Devices, PagesThatLeadToOneAnotherEnd) {
    loop.bus.answer({20, 0}, 1, [](const tk::message& request) {
        return page({}, request.get_u32(0xFE0003) == 5 ? 6 : 5);
    });
    tracking.getDevices();
    EXPECT_EQ(loop.bus.requestsTo({20, 0}, 1).size(), 3u);
}

TEST_F(Devices, APageThatFailsIsLogged) {
    loop.bus.answer({20, 0}, 1, tk::errorMsg(1, "no such thing"));
    tracking.getDevices();
    EXPECT_EQ(takeLog(), "device::CMD_GETDEVS failed: no such thing\n");
}

TEST_F(Devices, AFailedPageStillNamesTheNextOne) {
    loop.bus.answer({20, 0}, 1, [](const tk::message& request) {
        if (request.has(0xFE0003)) return page({interfaceRecord(2, "lo")}, 0);
        tk::message failed = tk::errorMsg(1, "half");
        failed.insert_u32(0xFE0003, 2);
        return failed;
    });
    tracking.getDevices();
    EXPECT_EQ(takeLog(), "device::CMD_GETDEVS failed: half\nadd dev: lo\n");
}

TEST_F(Devices, AreFoundByTheirSockets) {
    const Device* device = addDevice(7, Role::internal, "127.0.0.1");
    EXPECT_EQ(tracking.findDevice(device->ssdpSocket), device);
    EXPECT_EQ(tracking.findListener(device->httpSocket), device);
    EXPECT_EQ(tracking.findListener(device->ssdpSocket), nullptr);
}

TEST_F(Devices, RemovalStopsAStartedRoleAfterItsLogLine) {
    addDevice(7, Role::internal, "127.0.0.1");
    addDevice(8, Role::external, "198.51.100.1");
    takeLog();
    tracking.deviceChanged(goneRecord(8, "if8"));
    tracking.deviceChanged(goneRecord(7, "if7"));
    EXPECT_EQ(takeLog(),
              "rem dev: if8\nstop ext: if8\nsendAdverts\nrem dev: if7\nstop int: if7\nsendAdverts\n");
    EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
    EXPECT_TRUE(host.root.devices.empty());
}

/// A client that is connected to a device's listener and has sent the beginning of a request.
class ConnectedDevice : public TrackingTest {
protected:
    void connect() {
        client.reset(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(2828);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        send("GET /gateway.xml ");
        loop.settle();
    }
    void send(const std::string& text) {
        ASSERT_EQ(::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    std::string received() {
        loop.settle();
        char bytes[1000];
        const ssize_t count = ::recv(client.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : "";
    }
    bool isClosed() {
        char byte;
        return ::recv(client.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }
    tk::Fd client;
};

TEST_F(ConnectedDevice, RemovalDropsItsConnectionsSilently) {
    addDevice(7, Role::internal, "127.0.0.1");
    connect();
    takeLog();
    tracking.deviceChanged(goneRecord(7, "if7"));
    EXPECT_TRUE(isClosed());
    EXPECT_EQ(takeLog(), "rem dev: if7\nstop int: if7\nsendAdverts\n");
}

TEST_F(ConnectedDevice, StoppingOnlyTheRoleStillAnswersWhatIsOpen) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    connect();
    tracking.stopInt(device);
    send("HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(received().starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ConnectedDevice, ThatANewEnablingReplacesIsKeptUntilItsConnectionEnds) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    connect();
    tracking.stopInt(device);
    tracking.getDevices();  // clears the map
    EXPECT_EQ(tracking.deviceOf(7), nullptr);
    EXPECT_EQ(tracking.retiredCount(), 1u);
    send("HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(received().starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(isClosed());
    EXPECT_EQ(tracking.retiredCount(), 0u);
}

TEST_F(ConnectedDevice, ThatANewEnablingReplacesGoesWithItsTimedOutConnection) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    connect();
    tracking.stopInt(device);
    tracking.getDevices();
    EXPECT_EQ(tracking.retiredCount(), 1u);
    loop.advance(1000);
    EXPECT_TRUE(isClosed());
    EXPECT_EQ(tracking.retiredCount(), 0u);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(ConnectedDevice, WithoutAConnectionIsNotKeptWhenANewEnablingReplacesIt) {
    tracking.stopInt(addDevice(7, Role::internal, "127.0.0.1"));
    tracking.getDevices();
    EXPECT_EQ(tracking.retiredCount(), 0u);
}

using DevicesDeathTest = TrackingTest;

TEST_F(DevicesDeathTest, ASearchOnASocketOfNoDeviceEndsTheProcess) {
    EXPECT_EXIT(
        {
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            tracking.findDevice(99);
        },
        testing::ExitedWithCode(1), "findDevice fatal error");
}

}  // namespace

}  // namespace gateway
