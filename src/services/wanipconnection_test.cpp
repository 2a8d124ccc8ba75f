#include "services/wanipconnection.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "net/convert.h"
#include "services/testing/servicecalls.h"
#include "tk/names.h"
#include "tk/testing/testloop.h"

namespace gateway {

namespace {

using Texts = std::vector<std::string>;

const tk::Path interfaces = {20, 0};

/// Captures the log from before the service is made until it is gone.
class CapturingTest : public testing::Test {
protected:
    CapturingTest() { testing::internal::CaptureStdout(); }
    ~CapturingTest() override { testing::internal::GetCapturedStdout(); }
};

class Connection : public CapturingTest {
protected:
    std::string takeLog() {
        std::string log = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return log;
    }
    UPNPStatus call(const std::string& action, const Texts& in = {}) {
        Texts out;
        return gateway::call(service, action, in, out);
    }

    tk::testing::TestLoop loop;
    RefusedMappings refused;
    WANIPConnection service{7, inet_addr("198.51.100.1"), refused};
};

TEST_F(Connection, LogsItsInitialAddress) {
    EXPECT_EQ(takeLog(), "initial external addr: 198.51.100.1\n");
}

TEST_F(Connection, StartsWithTheTabledValues) {
    const std::pair<const char*, const char*> values[] = {
        {"ConnectionType", "IP_Routed"},
        {"PossibleConnectionTypes", "IP_Routed"},
        {"ConnectionStatus", "Unconfigured"},
        {"X_Name", "Local Area Connection"},
        {"LastConnectionError", "ERROR_NONE"},
        {"RSIPAvailable", "0"},
        {"NATEnabled", "1"},
        {"ExternalIPAddress", "198.51.100.1"},
        {"PortMappingNumberOfEntries", "0"},
    };
    for (const auto& [name, value] : values) EXPECT_EQ(service.getVar(name), value) << name;
    std::string value;
    for (const char* name :
         {"PortMappingEnabled", "PortMappingLeaseDuration", "RemoteHost", "ExternalPort", "InternalPort",
          "PortMappingProtocol", "InternalClient", "PortMappingDescription"})
        EXPECT_FALSE(service.variables.at(name)->getValue(value)) << name;
    EXPECT_EQ(service.variables.size(), 18u);
    EXPECT_EQ(service.actions.size(), 11u);
}

TEST_F(Connection, EventsOnlyItsFourTabledVariables) {
    Texts evented;
    for (const auto& [name, variable] : service.variables)
        if (variable->evented) evented.push_back(name);
    EXPECT_EQ(evented, (Texts{"ConnectionStatus", "ExternalIPAddress", "PortMappingNumberOfEntries",
                              "PossibleConnectionTypes"}));
}

TEST_F(Connection, ReadsTheUptimeAtEachQuery) {
    const unsigned before = toUnsigned(uptimeString());
    const unsigned read = toUnsigned(service.getVar("Uptime"));
    EXPECT_GE(read, before);
    EXPECT_LE(read, toUnsigned(uptimeString()));
    EXPECT_TRUE(service.variables.at("Uptime")->getter);
}

TEST_F(Connection, ReportsNoAddressAsZeros) {
    const WANIPConnection without(8, 0, refused);
    EXPECT_EQ(const_cast<WANIPConnection&>(without).getVar("ExternalIPAddress"), "0.0.0.0");
}

TEST_F(Connection, RefusesToSetTheConnectionType) {
    EXPECT_EQ(call("SetConnectionType", {"IP_Bridged"}), 501);
    EXPECT_EQ(service.getVar("ConnectionType"), "IP_Routed");
}

TEST_F(Connection, NamesItsStatus) {
    const std::pair<int, const char*> states[] = {{0, "Unconfigured"}, {1, "Connecting"},
                                                  {2, "Connected"},    {3, "Disconnected"},
                                                  {4, "Unconfigured"}, {-1, "Unconfigured"}};
    for (const auto& [state, text] : states) {
        service.setConnectionStatus(state);
        EXPECT_EQ(service.getVar("ConnectionStatus"), text);
    }
}

TEST_F(Connection, TakesANewAddressWithALogLine) {
    takeLog();
    service.setExternalAddress(inet_addr("203.0.113.5"));
    EXPECT_EQ(takeLog(), "set external ip 203.0.113.5\n");
    EXPECT_EQ(service.getVar("ExternalIPAddress"), "203.0.113.5");
}

TEST_F(Connection, CountsTheDummyEntryOnlyWhenTheSettingChanges) {
    service.setShowDummyRule(true);
    EXPECT_EQ(service.getVar("PortMappingNumberOfEntries"), "0");
    service.setShowDummyRule(false);
    EXPECT_EQ(service.getVar("PortMappingNumberOfEntries"), "0");
    service.setShowDummyRule(true);
    EXPECT_EQ(service.getVar("PortMappingNumberOfEntries"), "1");
}

tk::message setInterface(bool disabled) {
    tk::message request;
    request.insert_u32_array(0xFF0001, {20, 0});
    request.insert_u32(0xFE0001, 7);
    request.insert_bool(0xFE000A, disabled);
    return request;
}

TEST_F(Connection, RequestConnectionEnablesTheInterface) {
    EXPECT_EQ(call("RequestConnection"), 0);
    const auto requests = loop.bus.requestsTo(interfaces, 0xFE0003);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].content, setInterface(false));
    EXPECT_EQ(requests[0].timeout, 6000u);
    EXPECT_EQ(service.getVar("ConnectionStatus"), "Connecting");
}

TEST_F(Connection, ForceTerminationDisablesTheInterface) {
    EXPECT_EQ(call("ForceTermination"), 0);
    const auto requests = loop.bus.requestsTo(interfaces, 0xFE0003);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].content, setInterface(true));
    EXPECT_EQ(service.getVar("ConnectionStatus"), "Disconnected");
}

TEST_F(Connection, RefusesBothWhenControlPointsMayNotDisableItAndSendsNothing) {
    service.allowDisableExternal = false;
    EXPECT_EQ(call("RequestConnection"), 501);
    EXPECT_EQ(call("ForceTermination"), 501);
    EXPECT_TRUE(loop.bus.requests.empty());
    EXPECT_EQ(service.getVar("ConnectionStatus"), "Unconfigured");
}

TEST_F(Connection, KeepsItsStatusWhenTheRouterRefuses) {
    loop.bus.answer(interfaces, 0xFE0003, tk::errorMsg(5, "no"));
    takeLog();
    EXPECT_EQ(call("RequestConnection"), 501);
    EXPECT_EQ(call("ForceTermination"), 501);
    EXPECT_EQ(takeLog(), "enable device failed: no\ndisable device failed: no\n");
    EXPECT_EQ(service.getVar("ConnectionStatus"), "Unconfigured");
}

}  // namespace

}  // namespace gateway
