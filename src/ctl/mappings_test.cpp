// The list of port mappings: what is asked, what is joined, and what is printed.

#include "ctl/mappings.h"

#include <arpa/inet.h>

#include <sstream>

#include <gtest/gtest.h>

#include "ctl/commandline.h"
#include "ctl/fieldspec.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

using contract::MappingRecord;
using contract::MappingRefusal;
using tk::testing::listOf;

struct MappingsTest : testing::Test {
    MappingsTest() {
        bus.answer({20, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=2", "0x10005:string=wan0"})}));
        bus.answer({20, 5}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=40", "1100:u64=9", "1101:u64=99"}),
                           parseFields({"0xFE0001:u32=41", "1100:u64=12", "1101:u64=34560000000"})}));
    }
    void haveMappings(const std::vector<MappingRecord>& mappings) {
        std::vector<tk::message> records;
        for (const MappingRecord& mapping : mappings) records.push_back(mapping.toMessage());
        bus.answer({80, 1}, tk::command::getAll, listOf(records));
    }
    std::string print(const std::vector<std::string>& arguments) {
        Context context(out, &bus);
        context.terminal.width = width;
        EXPECT_EQ(runCommandLine(arguments, context, errors), Status::done) << errors.str();
        return out.str();
    }

    const MappingRecord web{
        41, 2, 80, 6, ::inet_addr("192.0.2.2"), 8080, true, "web", ::inet_addr("192.0.2.3"), 1767323045};
    // Its rule has gone in between.
    const MappingRecord game{
        42, 9, 53, 17, ::inet_addr("192.0.2.2"), 5353, false, "a\x1b[2J", ::inet_addr("192.0.2.2"), 0};
    std::size_t width = 0;
    tk::testing::ScriptedBus bus;
    std::ostringstream out;
    std::ostringstream errors;
};

TEST_F(MappingsTest, AreListedAsJson) {
    haveMappings({web, game});
    EXPECT_EQ(print({"upnp", "mappings", "--json"}),
              R"([{"interface":2,"externalPort":80,"protocol":"tcp","internalClient":"192.0.2.2",)"
              R"("internalPort":8080,"enabled":true,"description":"web","requestedBy":"192.0.2.3",)"
              R"("since":"2026-01-02T03:04:05Z","packets":12,"bytes":34560000000},)"
              R"({"interface":9,"externalPort":53,"protocol":"udp","internalClient":"192.0.2.2",)"
              R"("internalPort":5353,"enabled":false,"description":"a\u001b[2J","requestedBy":"192.0.2.2",)"
              R"("since":"1970-01-01T00:00:00Z","packets":0,"bytes":0}])"
              "\n");
}

TEST_F(MappingsTest, AreListedAsTable) {
    haveMappings({web, game});
    EXPECT_EQ(print({"upnp", "mappings"}),
              "INTERFACE  PROTOCOL  PORT  TO              ENABLED  DESCRIPTION  ASKED BY   "
              "SINCE                 PACKETS  BYTES\n"
              "wan0       tcp       80    192.0.2.2:8080  yes      web          192.0.2.3  "
              "2026-01-02T03:04:05Z  12       34560000000\n"
              "9          udp       53    192.0.2.2:5353  no       a\\x1b[2J     192.0.2.2  "
              "1970-01-01T00:00:00Z  0        0\n");
}

TEST_F(MappingsTest, ALongDescriptionDoesNotFillTheTable) {
    MappingRecord wide = web;
    wide.description = std::string(100000, 'x');
    haveMappings({wide});
    const std::string table = print({"upnp", "mappings"});
    EXPECT_NE(table.find("  " + std::string(60, 'x') + "...  "), std::string::npos);
    EXPECT_LT(table.size(), 500U);
}

TEST_F(MappingsTest, KeepTheirAddressesOnANarrowTerminal) {
    MappingRecord wide = web;
    wide.internalClient = wide.requestedBy = ::inet_addr("192.168.178.100");
    wide.description = "a game that somebody plays";
    wide.internalPort = 50000;
    width = 80;
    haveMappings({wide});
    EXPECT_EQ(print({"upnp", "mappings"}),
              "PROTOCOL  PORT  TO                     DESCRIPTION  ASKED BY         BYTES\n"
              "tcp       80    192.168.178.100:50000  a game tha~  192.168.178.100  34560000000\n");
}

TEST_F(MappingsTest, ShowOnANarrowTerminalThatOneIsDisabled) {
    width = 80;
    haveMappings({web, game});
    EXPECT_EQ(print({"upnp", "mappings"}),
              "PROTOCOL  PORT  TO              ENABLED  DESCRIPTION  ASKED BY   BYTES\n"
              "tcp       80    192.0.2.2:8080  yes      web          192.0.2.3  34560000000\n"
              "udp       53    192.0.2.2:5353  no       a\\x1b[2J     192.0.2.2  0\n");
}

TEST_F(MappingsTest, NoneIsAnEmptyListAndNoRuleIsAskedFor) {
    EXPECT_EQ(print({"upnp", "mappings", "--json"}), "[]\n");
    EXPECT_TRUE(bus.requestsTo({20, 5}, tk::command::getAll).empty());
}

TEST_F(MappingsTest, TheTrafficIsAskedForWithTheRules) {
    haveMappings({web});
    (void)print({"upnp", "mappings"});
    const auto requests = bus.requestsTo({20, 5}, tk::command::getAll);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(tk::withoutRouting(requests[0].content), parseFields({"0xFE000C:u32=256"}));
}

TEST_F(MappingsTest, ComeByInterfaceThenPortThenProtocol) {
    const auto place = [this](std::uint32_t interface, std::uint16_t port, std::uint8_t protocol) {
        MappingRecord mapping = web;
        mapping.interface = interface;
        mapping.externalPort = port;
        mapping.protocol = protocol;
        return mapping;
    };
    const std::vector<MappingRecord> ordered = {place(1, 90, 6), place(2, 80, 6), place(2, 80, 17),
                                                place(2, 81, 6)};
    haveMappings({ordered[3], ordered[1], ordered[2], ordered[0]});
    Session session(bus);
    std::vector<MappingRecord> listed;
    for (const Mapping& mapping : mappingsOf(session)) listed.push_back(mapping);
    EXPECT_EQ(listed, ordered);
}

TEST_F(MappingsTest, RefusalsComeInTheirOrder) {
    const MappingRefusal first{.time = 5, .externalPort = 80, .code = 718, .reason = "taken", .count = 3};
    const MappingRefusal second{.time = 4, .externalPort = 81, .code = 501, .reason = "no room"};
    bus.answer({80, 1}, contract::recentRefusals, listOf({first.toMessage(), second.toMessage()}));
    Session session(bus);
    EXPECT_EQ(refusalsOf(session), (std::vector<MappingRefusal>{first, second}));
}

}  // namespace
}  // namespace ctl
