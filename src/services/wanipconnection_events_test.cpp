// What a subscriber of WANIPConnection is told, and when.

#include "services/wanipconnection.h"

#include <arpa/inet.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "services/testing/servicecalls.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/testing/subscriber.h"

namespace gateway {

namespace {

const tk::Path firewall = {20, 5};

class ConnectionEvents : public testing::Test {
protected:
    ConnectionEvents() {
        service.subscriptions["uuid:s"] = std::make_unique<Subscription>(
            service, "uuid:s", htonl(INADDR_LOOPBACK), subscriber.port, "/notify");
    }

    /// What a change tells the subscriber, one line per event.
    template <typename Change>
    std::string eventsOf(Change change) {
        {
            const tk::testing::CapturedOutput ownLines;
            change();
        }
        const std::size_t started = service.events.size();
        const tk::testing::CapturedOutput output;
        loop.settle();
        const std::string lines = output.text();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), static_cast<std::ptrdiff_t>(started))
            << lines;
        service.events.clear();
        return lines;
    }
    std::string eventsOf(const std::string& action, const std::vector<std::string>& in,
                         UPNPStatus status = 0) {
        return eventsOf([&] {
            std::vector<std::string> out;
            EXPECT_EQ(call(service, action, in, out), status) << action;
        });
    }
    std::string add(const std::string& port, UPNPStatus status = 0) {
        return eventsOf("AddPortMapping", {"", port, "TCP", "8080", "192.0.2.2", "1", "web", "0"}, status);
    }
    std::string remove(const std::string& port, UPNPStatus status = 0) {
        return eventsOf("DeletePortMapping", {"", port, "TCP"}, status);
    }
    std::string showDummyRule(bool show) {
        return eventsOf([&] { service.setShowDummyRule(show); });
    }
    std::string setStatus(int state) {
        return eventsOf([&] { service.setConnectionStatus(state); });
    }
    std::string setAddress(const char* address) {
        return eventsOf([&] { service.setExternalAddress(inet_addr(address)); });
    }

    const tk::testing::CapturedOutput quiet;
    tk::testing::TestLoop loop;
    const Subscriber subscriber{64};
    RefusedMappings refused;
    WANIPConnection service{7, inet_addr("198.51.100.1"), refused};
};

TEST_F(ConnectionEvents, OfTheStatusAreSentOncePerChange) {
    EXPECT_EQ(setStatus(0), "");  // as it was
    EXPECT_EQ(setStatus(1), "notify: ConnectionStatus = 'Connecting'\n");
    EXPECT_EQ(setStatus(1), "");
    EXPECT_EQ(setStatus(2), "notify: ConnectionStatus = 'Connected'\n");
    EXPECT_EQ(setStatus(3), "notify: ConnectionStatus = 'Disconnected'\n");
    EXPECT_EQ(setStatus(7), "notify: ConnectionStatus = 'Unconfigured'\n");
    EXPECT_EQ(setStatus(8), "");  // another state, the same text
}

TEST_F(ConnectionEvents, OfTheStatusFollowTheTwoConnectionActions) {
    EXPECT_EQ(eventsOf("RequestConnection", {}), "notify: ConnectionStatus = 'Connecting'\n");
    EXPECT_EQ(eventsOf("RequestConnection", {}), "");
    EXPECT_EQ(eventsOf("ForceTermination", {}), "notify: ConnectionStatus = 'Disconnected'\n");
    loop.bus.answer({20, 0}, tk::command::setObject, tk::errorMsg(1, "no"));
    EXPECT_EQ(eventsOf("RequestConnection", {}, 501), "");
}

TEST_F(ConnectionEvents, OfTheAddressAreSentOncePerChange) {
    EXPECT_EQ(setAddress("198.51.100.1"), "");
    EXPECT_EQ(setAddress("203.0.113.5"), "notify: ExternalIPAddress = '203.0.113.5'\n");
    EXPECT_EQ(setAddress("203.0.113.5"), "");
    EXPECT_EQ(setAddress("0.0.0.0"), "notify: ExternalIPAddress = '0.0.0.0'\n");
}

TEST_F(ConnectionEvents, OfTheCountFollowMappingsThatComeAndGo) {
    EXPECT_EQ(add("80"), "notify: PortMappingNumberOfEntries = '2'\n");
    EXPECT_EQ(add("81"), "notify: PortMappingNumberOfEntries = '3'\n");
    EXPECT_EQ(add("81"), "");  // changes the existing mapping
    EXPECT_EQ(remove("80"), "notify: PortMappingNumberOfEntries = '2'\n");
    EXPECT_EQ(remove("80", 714), "");
}

TEST_F(ConnectionEvents, OfTheCountAreNotSentWhenTheFirewallRefuses) {
    EXPECT_EQ(add("80"), "notify: PortMappingNumberOfEntries = '2'\n");
    loop.bus.answer(firewall, tk::command::addObject, tk::errorMsg(1, "no"));
    loop.bus.answer(firewall, tk::command::removeObject, tk::errorMsg(1, "no"));
    EXPECT_EQ(add("81", 501), "");
    EXPECT_EQ(remove("80", 501), "");
}

TEST_F(ConnectionEvents, OfTheCountFollowTheSettingOfTheDummyEntry) {
    EXPECT_EQ(showDummyRule(true), "");
    EXPECT_EQ(showDummyRule(false), "");  // 0, as at the start
    EXPECT_EQ(showDummyRule(true), "notify: PortMappingNumberOfEntries = '1'\n");
    EXPECT_EQ(showDummyRule(true), "");
    EXPECT_EQ(showDummyRule(false), "notify: PortMappingNumberOfEntries = '0'\n");
}

TEST_F(ConnectionEvents, OfTheCountLeaveTheDummyEntryOutWhenItIsNotShown) {
    EXPECT_EQ(showDummyRule(false), "");
    EXPECT_EQ(add("80"), "notify: PortMappingNumberOfEntries = '1'\n");
    EXPECT_EQ(remove("80"), "notify: PortMappingNumberOfEntries = '0'\n");
}

}  // namespace

}  // namespace gateway
