// Commands about the router itself: what it is asked, and what is printed.

#include "ctl/commandline.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ctl/json.h"
#include "ctl/testing/commandlinetest.h"

namespace ctl {
namespace {

using tk::testing::listOf;

TEST_F(CommandLineTest, InterfaceListAsJson) {
    EXPECT_EQ(
        print({"interface", "list", "--json"}),
        R"([{"id":1,"name":"lan0","displayName":"Home\n","index":2,"type":1,"disabled":false,"running":true},)"
        R"({"id":2,"name":"list","displayName":"list","index":3,"type":512,"disabled":true,"running":false}])"
        "\n");
}

TEST_F(CommandLineTest, InterfaceListAsTable) {
    EXPECT_EQ(print({"interface", "list"}),
              "ID  NAME  DISPLAY NAME  INDEX  TYPE  DISABLED  RUNNING\n"
              "1   lan0  Home\\x0a      2      1     no        yes\n"
              "2   list  list          3      512   yes       no\n");
}

TEST_F(CommandLineTest, AddressList) {
    bus.answer(
        {20, 1}, tk::command::getAll,
        listOf({parseFields({"0xFE0001:u32=1", "1:be32=192.0.2.1", "5:u32=1", "0xFE000A:bool=no"}),
                parseFields({"0xFE0001:u32=2", "1:be32=198.51.100.1", "10:u32=6", "0xFE000A:bool=yes"})}));
    EXPECT_EQ(print({"--json", "address", "list"}),
              R"([{"id":1,"address":"192.0.2.1","interface":1,"disabled":false},)"
              R"({"id":2,"address":"198.51.100.1","interface":6,"disabled":true}])"
              "\n");
    out.str("");
    EXPECT_EQ(print({"address", "list"}),
              "ID  ADDRESS       INTERFACE  DISABLED\n"
              "1   192.0.2.1     lan0       no\n"
              "2   198.51.100.1  6          yes\n");
}

TEST_F(CommandLineTest, NatList) {
    const auto record = [](bool isDynamic, const std::vector<std::string>& more) {
        std::vector<std::string> fields = {"0xFE0001:u32=1",
                                           std::string("0xFE0007:bool=") + (isDynamic ? "yes" : "no"),
                                           "0xFE000A:bool=no",
                                           "39:string=dstnat",
                                           "52:be32=198.51.100.1",
                                           "9:u32=80",
                                           "11:u32=6",
                                           "1000:be32=192.0.2.2",
                                           "1002:u32=8080"};
        fields.insert(fields.end(), more.begin(), more.end());
        return parseFields(fields);
    };
    bus.answer({20, 5}, tk::command::getAll,
               listOf({record(true, {"1102:u32=80", "1100:u64=12", "1101:u64=5000000000"}),
                       record(false, {"1100:u64=0", "1101:u64=0"})}));
    const std::string place = R"("chain":"dstnat","dstAddress":"198.51.100.1","protocol":"tcp","dstPort":80,)"
                              R"("toAddress":"192.0.2.2","toPort":8080,)";
    EXPECT_EQ(print({"nat", "list", "--json"}), R"([{"id":1,"disabled":false,"dynamic":true,)" + place +
                                                    R"("owner":80,"packets":12,"bytes":5000000000},)" +
                                                    R"({"id":1,"disabled":false,"dynamic":false,)" + place +
                                                    R"("packets":0,"bytes":0}])" + "\n");
    out.str("");
    EXPECT_EQ(print({"nat", "list"}),
              "ID  PROTOCOL  FROM             TO              DISABLED  OWNER  PACKETS  BYTES\n"
              "1   tcp       198.51.100.1:80  192.0.2.2:8080  no        upnpd  12       5000000000\n"
              "1   tcp       198.51.100.1:80  192.0.2.2:8080  no        -      0        0\n");
    for (const auto& request : bus.requestsTo({20, 5}, tk::command::getAll))
        EXPECT_EQ(request.content.get_u32(tk::field::options), 256U);
}

TEST_F(CommandLineTest, NatTestAsksAndChangesNothing) {
    bus.answer({20, 5}, 2, tk::message());
    EXPECT_EQ(print({"nat", "test", "198.51.100.1", "80", "tcp", "192.0.2.2", "8080"}), "allowed\n");
    EXPECT_EQ(bus.requests.size(), 1U);
    ASSERT_EQ(bus.requestsTo({20, 5}, 2).size(), 1U);
    tk::message asked = bus.requestsTo({20, 5}, 2).at(0).content;
    asked.remove(tk::field::destination);
    EXPECT_EQ(asked, parseFields({"0xFE0007:bool=yes", "0xFE000A:bool=no", "39:string=dstnat",
                                  "52:be32=198.51.100.1", "9:u32=80", "11:u32=6", "40:u32=22",
                                  "1000:be32=192.0.2.2", "1002:u32=8080"}));
}

TEST_F(CommandLineTest, NatTestTellsWhyARuleIsRefused) {
    bus.answer({20, 5}, 2, tk::errorMsg(tk::error::refused, "target 127.0.0.1 refused"));
    EXPECT_EQ(run({"nat", "test", "198.51.100.1", "80", "udp", "127.0.0.1", "8080"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: target 127.0.0.1 refused\n");
}

TEST_F(CommandLineTest, NatTestAsksForPort0Too) {
    EXPECT_EQ(print({"nat", "test", "198.51.100.1", "0", "tcp", "192.0.2.2", "0"}), "allowed\n");
    EXPECT_EQ(errors.str(), "");
}

TEST_F(CommandLineTest, ReloadNamesWhatHasChanged) {
    bus.answer({0}, tk::command::hubReload, tk::message());
    EXPECT_EQ(print({"reload"}), "nothing has changed\n");
    out.str("");
    EXPECT_EQ(print({"reload", "--json"}), "{\"changed\":[]}\n");
    out.str("");
    bus.answer({0}, tk::command::hubReload,
               parseFields({R"(1:message[]=[[{"id":1,"type":"string","value":"lan"}],)"
                            R"([{"id":1,"type":"string","value":"nat"}]])"}));
    EXPECT_EQ(print({"reload"}), "changed: lan, nat\n");
    out.str("");
    EXPECT_EQ(print({"reload", "--json"}), R"({"changed":["lan","nat"]})"
                                           "\n");
}

TEST_F(CommandLineTest, HistoryUndo) {
    bus.answer({24}, 2, parseFields({"0xFE0001:u32=7", "3:string=upnp config changed"}));
    EXPECT_EQ(print({"history", "undo"}), "undone: upnp config changed\n");
    out.str("");
    EXPECT_EQ(print({"history", "undo", "--json"}), R"({"id":7,"description":"upnp config changed"})"
                                                    "\n");
}

TEST_F(CommandLineTest, HistoryList) {
    bus.answer({24}, tk::command::getAll,
               listOf({parseFields(
                   {"0xFE0001:u32=1", "3:string=upnp config changed", "4:u32=80", "5:u64=1767323045"})}));
    EXPECT_EQ(print({"history", "list", "--json"}),
              R"([{"id":1,"description":"upnp config changed","program":80,"time":"2026-01-02T03:04:05Z"}])"
              "\n");
    out.str("");
    EXPECT_EQ(print({"history", "list"}),
              "ID  TIME                  PROGRAM  DESCRIPTION\n"
              "1   2026-01-02T03:04:05Z  80       upnp config changed\n");
}

TEST_F(CommandLineTest, BusCallSendsTheFieldsAndPrintsTheReply) {
    bus.answer({20, 5}, 0xFE0002, parseFields({"39:string=dstnat", "11:u32=6"}));
    EXPECT_EQ(print({"bus", "call", "0x14,5", "0xFE0002", "0xFE0001:u32=7", "9999:string=x"}),
              "0x27:string=\"dstnat\"\n0xb:u32=6\n");
    const auto requests = bus.requestsTo({20, 5}, 0xFE0002);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(tk::withoutRouting(requests[0].content), parseFields({"0xFE0001:u32=7", "9999:string=x"}));
}

TEST_F(CommandLineTest, BusCallWithJsonPrintsAnErrorToo) {
    bus.answer({65}, 7, tk::errorMsg(tk::error::noSuchCommand, "no such command"));
    EXPECT_EQ(run({"bus", "call", "65", "7", "--json"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: no such command\n");
    const Json object = Json::parse(out.str());
    EXPECT_EQ(object["kind"], "error");
    EXPECT_EQ(object["code"], "0xfe0002");
    EXPECT_EQ(object["text"], "no such command");
}

TEST_F(CommandLineTest, BusCallWaitsAsLongAsItIsTold) {
    EXPECT_EQ(run({"bus", "call", "65", "7", "--timeout", "250"}), Status::done);
    EXPECT_EQ(bus.requests.at(0).timeout, 250U);
    EXPECT_EQ(run({"bus", "call", "65", "7", "--timeout", "60000"}), Status::done);
    EXPECT_EQ(bus.requests.at(1).timeout, 60000U);
}

}  // namespace
}  // namespace ctl
