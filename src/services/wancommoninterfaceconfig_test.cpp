#include "services/wancommoninterfaceconfig.h"

#include <gtest/gtest.h>

#include "net/convert.h"
#include "services/testing/soapcalls.h"
#include "tk/testing/testloop.h"

namespace gateway {

namespace {

const tk::Path interfaces = {20, 0};

tk::message record(std::uint32_t type) {
    tk::message device;
    device.insert_u32(0xFE0001, 7);
    device.insert_u32(0x10001, type);
    return device;
}

tk::message counters() {
    tk::message reply;
    reply.insert_u64(0x100FC, 5000000000);
    reply.insert_u64(0x100FD, 1);
    reply.insert_u64(0x100FE, 4294967296);
    reply.insert_u64(0x100FF, 4294967295);
    return reply;
}

class CommonInterface : public testing::Test {
protected:
    CommonInterface() { testing::internal::CaptureStdout(); }
    ~CommonInterface() override { testing::internal::GetCapturedStdout(); }

    tk::testing::TestLoop loop;
    WANCommonInterfaceConfig service{record(1)};
};

TEST_F(CommonInterface, ReportsFixedLinkProperties) {
    EXPECT_EQ(service.getVar("WANAccessType"), "Ethernet");
    EXPECT_EQ(service.getVar("Layer1UpstreamMaxBitRate"), "10000000");
    EXPECT_EQ(service.getVar("Layer1DownstreamMaxBitRate"), "10000000");
    EXPECT_EQ(service.getVar("PhysicalLinkStatus"), "Up");
    EXPECT_EQ(service.variables.size(), 9u);
    EXPECT_EQ(service.actions.size(), 6u);
}

TEST_F(CommonInterface, CallsEveryLinkButEthernetOtherThoughItsListLacksThat) {
    WANCommonInterfaceConfig other(record(512));
    EXPECT_EQ(other.getVar("WANAccessType"), "Other");
    EXPECT_EQ(other.variables.at("WANAccessType")->allowed,
              (std::list<std::string>{"DSL", "POTS", "Cable", "Ethernet"}));
}

TEST_F(CommonInterface, KeepsTheLow32BitsOfEachCounter) {
    loop.bus.answer(interfaces, 0xFE0002, counters());
    EXPECT_EQ(service.getVar("TotalBytesReceived"), "705032704");
    EXPECT_EQ(service.getVar("TotalBytesSent"), "1");
    EXPECT_EQ(service.getVar("TotalPacketsReceived"), "0");
    EXPECT_EQ(service.getVar("TotalPacketsSent"), "4294967295");
}

TEST_F(CommonInterface, AsksTheRouterAtEachRead) {
    (void)service.getVar("TotalBytesSent");
    (void)service.getVar("TotalPacketsSent");
    const auto requests = loop.bus.requestsTo(interfaces, 0xFE0002);
    ASSERT_EQ(requests.size(), 2u);
    tk::message query;
    query.insert_u32_array(0xFF0001, {20, 0});
    query.insert_u32(0xFE0001, 7);
    query.insert_u32(0xFE000C, 256);
    EXPECT_EQ(requests[0].content, query);
    EXPECT_EQ(requests[0].timeout, 6000u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    testing::internal::CaptureStdout();
}

TEST_F(CommonInterface, AnswersZeroWithOneLogLineWhenTheRouterRefuses) {
    loop.bus.answer(interfaces, 0xFE0002, tk::errorMsg(1, "gone"));
    EXPECT_EQ(service.getVar("TotalBytesSent"), "0");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "get device stats: gone\n");
    testing::internal::CaptureStdout();
}

/// A response of the service without its date and length.
std::string resultOf(const std::string& action, const std::string& content) {
    return "<?xml version=\"1.0\"?>\r\n"
           "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
           "  <s:Body>\r\n    <u:" +
           action + "Response xmlns:u=\"urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1\">\r\n" +
           content + "    </u:" + action + "Response>\r\n  </s:Body>\r\n</s:Envelope>\r\n";
}

TEST_F(CommonInterface, TellsControlPointsZeroWhenTheRouterRefuses) {
    loop.bus.answer(interfaces, 0xFE0002, tk::errorMsg(1, "gone"));
    const HTTPMessage response = soapCall(service, "GetTotalBytesSent");
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(response.body,
              resultOf("GetTotalBytesSent", "      <NewTotalBytesSent>0</NewTotalBytesSent>\r\n"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "action: GetTotalBytesSent\nget device stats: gone\nret: NewTotalBytesSent, val: 0\n");
    testing::internal::CaptureStdout();
}

TEST_F(CommonInterface, AnswersTheSharingActionWithFourQueriesAndSixArgumentsInOrder) {
    std::uint64_t queries = 0;  // makes each answer differ: one query cannot serve two arguments
    loop.bus.answer(interfaces, 0xFE0002, [&](const tk::message&) {
        tk::message reply;
        ++queries;
        for (std::uint32_t field : {0x100FCu, 0x100FDu, 0x100FEu, 0x100FFu})
            reply.insert_u64(field, queries * 10 + (field & 0xF) - 0xC);
        return reply;
    });
    const unsigned before = toUnsigned(uptimeString());
    const HTTPMessage response = soapCall(service, "X_GetICSStatistics");
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(queries, 4u);
    EXPECT_EQ(loop.bus.requests.size(), 4u);
    const auto expected = [](unsigned uptime) {
        return resultOf("X_GetICSStatistics",
                        "      <TotalBytesSent>11</TotalBytesSent>\r\n"
                        "      <TotalBytesReceived>20</TotalBytesReceived>\r\n"
                        "      <TotalPacketsSent>33</TotalPacketsSent>\r\n"
                        "      <TotalPacketsReceived>42</TotalPacketsReceived>\r\n"
                        "      <Layer1DownstreamMaxBitRate>10000000</Layer1DownstreamMaxBitRate>\r\n"
                        "      <Uptime>" +
                            toString(uptime) + "</Uptime>\r\n");
    };
    bool known = false;  // the clock may tick in between
    for (unsigned uptime = before; uptime <= toUnsigned(uptimeString()); ++uptime)
        known = known || response.body == expected(uptime);
    EXPECT_TRUE(known) << response.body;
}

TEST_F(CommonInterface, UsesANewRecordAndSetsTheBitRatesAnew) {
    service.setVar("Layer1UpstreamMaxBitRate", "1");
    service.setVar("Layer1DownstreamMaxBitRate", "2");
    tk::message second;
    second.insert_u32(0xFE0001, 9);
    second.insert_u32(0x10001, 512);
    service.setDevice(second);
    EXPECT_EQ(service.getVar("Layer1UpstreamMaxBitRate"), "10000000");
    EXPECT_EQ(service.getVar("Layer1DownstreamMaxBitRate"), "10000000");
    EXPECT_EQ(service.getVar("WANAccessType"), "Ethernet");  // chosen once, from the first record
    for (const char* counter :
         {"TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent", "TotalPacketsReceived"})
        (void)service.getVar(counter);
    ASSERT_EQ(loop.bus.requests.size(), 4u);
    for (const auto& request : loop.bus.requests) EXPECT_EQ(request.content.get_u32(0xFE0001), 9u);
}

TEST_F(CommonInterface, NamesTheStatisticsOfTheSharingActionWithoutPrefix) {
    EXPECT_EQ(service.actions.at("X_GetICSStatistics")->outNames,
              (std::vector<std::string>{"TotalBytesSent", "TotalBytesReceived", "TotalPacketsSent",
                                        "TotalPacketsReceived", "Layer1DownstreamMaxBitRate", "Uptime"}));
    EXPECT_EQ(service.actions.at("GetTotalBytesSent")->outNames,
              (std::vector<std::string>{"NewTotalBytesSent"}));
}

}  // namespace

}  // namespace gateway
