// The actions of WANIPConnection that change port mappings, against a scripted firewall.

#include "services/wanipconnection.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

#include <gtest/gtest.h>

#include "services/testing/portmappings.h"
#include "tk/names.h"

namespace gateway {

namespace {

constexpr std::uint64_t firstDate = tk::testing::ManualClock::firstDate;
const std::uint32_t client = inet_addr("192.0.2.2");

tk::message createMessage(bool disabled, std::uint32_t externalPort, std::uint32_t protocol,
                          std::uint32_t internalPort) {
    tk::message rule;
    rule.insert_u32_array(0xFF0001, {20, 5});
    rule.insert_bool(0xFE0007, true);
    rule.insert_bool(0xFE000A, disabled);
    rule.insert_string(39, "dstnat");
    rule.insert_bool(419, true);
    rule.insert_be32(52, externalAddress);
    rule.insert_be32(53, externalAddress);
    rule.insert_bool(406, true);
    rule.insert_u32(9, externalPort);
    rule.insert_u32(10, externalPort);
    rule.insert_bool(404, true);
    rule.insert_u32(11, protocol);
    rule.insert_u32(40, 22);
    rule.insert_bool(1006, true);
    rule.insert_be32(1000, client);
    rule.insert_be32(1001, client);
    rule.insert_bool(1007, true);
    rule.insert_u32(1002, internalPort);
    rule.insert_u32(1003, internalPort);
    return rule;
}

TEST_F(PortMappings, AddCreatesTheRuleFieldByFieldInOrder) {
    EXPECT_EQ(addMapping({}), 0);
    EXPECT_EQ(sent(tk::command::addObject), std::vector<tk::message>{createMessage(false, 80, 6, 8080)});
    EXPECT_EQ(takeLog(), "add map 80->8080, 192.0.2.2\n");
    EXPECT_EQ(count(), "2");  // with the dummy entry
}

TEST_F(PortMappings, AddOfUdpCarriesItsProtocolNumber) {
    EXPECT_EQ(addMapping({.externalPort = "53", .protocol = "UDP", .internalPort = "5353"}), 0);
    EXPECT_EQ(sent(tk::command::addObject), std::vector<tk::message>{createMessage(false, 53, 17, 5353)});
}

TEST_F(PortMappings, AnyOtherProtocolIsUdpEvenLowerCaseTcp) {
    EXPECT_EQ(addMapping({.protocol = "tcp"}), 0);
    EXPECT_EQ(sent(tk::command::addObject), std::vector<tk::message>{createMessage(false, 80, 17, 8080)});
    Texts out;
    EXPECT_EQ(generic("1", out), 0);
    EXPECT_EQ(out[2], "UDP");
}

TEST_F(PortMappings, EnabledIsYesOneOrTrueAndNothingElse) {
    int port = 1;
    for (const char* text : {"yes", "1", "true"}) {
        EXPECT_EQ(addMapping({.externalPort = std::to_string(port++), .enabled = text}), 0);
        EXPECT_FALSE(sent(tk::command::addObject).back().get_bool(0xFE000A, true)) << text;
    }
    for (const char* text : {"TRUE", "on", "", "0", "no"}) {
        EXPECT_EQ(addMapping({.externalPort = std::to_string(port++), .enabled = text}), 0);
        EXPECT_TRUE(sent(tk::command::addObject).back().get_bool(0xFE000A, false)) << text;
    }
}

TEST_F(PortMappings, RemoteHostThatIsAnAddressIsRefused) {
    EXPECT_EQ(addMapping({.remoteHost = "10.0.0.1"}), 726);
    EXPECT_EQ(takeLog(), "addPortMapping: REMOTE_ONLY_WILDCARD: '10.0.0.1'\n");
    EXPECT_TRUE(sent(tk::command::addObject).empty());
    EXPECT_EQ(count(), "0");
}

TEST_F(PortMappings, RemoteHostThatIsNotAnAddressIsIgnored) {
    int port = 1;
    for (const char* host : {"", "255.255.255.255", "host.example"})
        EXPECT_EQ(addMapping({.remoteHost = host, .externalPort = std::to_string(port++)}), 0) << host;
    EXPECT_EQ(sent(tk::command::addObject).size(), 3u);
}

TEST_F(PortMappings, EmptyExternalPortIsRefusedAndZeroIsAPort) {
    EXPECT_EQ(addMapping({.externalPort = ""}), 716);
    EXPECT_EQ(takeLog(), "addPortMapping: EXT_PORT_NO_WILDCARD\n");
    EXPECT_EQ(addMapping({.externalPort = "0"}), 0);
    EXPECT_EQ(sent(tk::command::addObject), std::vector<tk::message>{createMessage(false, 0, 6, 8080)});
}

TEST_F(PortMappings, OnlyPermanentLeasesAreAccepted) {
    EXPECT_EQ(addMapping({.lease = "3600"}), 725);
    EXPECT_EQ(takeLog(), "addPortMapping: ONLY_PERM_LEASES\n");
    EXPECT_EQ(addMapping({.lease = "4294967296"}), 725);  // beyond 32 bits is the largest number, not 0
    EXPECT_TRUE(sent(tk::command::addObject).empty());
    EXPECT_EQ(addMapping({.lease = "abc"}), 0);  // reads as 0
}

TEST_F(PortMappings, TheChecksComeInTheirOrder) {
    EXPECT_EQ(addMapping({.remoteHost = "10.0.0.1", .externalPort = "", .lease = "1"}), 726);
    EXPECT_EQ(addMapping({.externalPort = "", .lease = "1"}), 716);
    EXPECT_EQ(addMapping({}), 0);
    takeLog();
    EXPECT_EQ(addMapping({.internalClient = "192.0.2.9", .lease = "1"}), 725);
    EXPECT_EQ(takeLog(), "addPortMapping: ONLY_PERM_LEASES\n");
}

TEST_F(PortMappings, PortsAreCutTo16BitsAndSaturateAt32) {
    EXPECT_EQ(addMapping({.externalPort = "65616", .internalPort = "65537x"}), 0);
    EXPECT_EQ(sent(tk::command::addObject).back(), createMessage(false, 80, 6, 1));
    EXPECT_EQ(addMapping({.externalPort = "4294967376"}), 0);  // saturates, so it is not port 80
    EXPECT_EQ(sent(tk::command::addObject).back(), createMessage(false, 65535, 6, 8080));
}

TEST_F(PortMappings, TheSameClientChangesItsMappingAndTheCountStays) {
    addMapping({});
    takeLog();
    EXPECT_EQ(addMapping({.internalPort = "9090", .enabled = "0", .description = "new"}), 0);
    EXPECT_EQ(takeLog(), "set map 80->9090, 192.0.2.2\n");
    tk::message change;
    change.insert_u32_array(0xFF0001, {20, 5});
    change.insert_u32(0xFE0001, 41);
    change.insert_bool(0xFE000A, true);
    change.insert_be32(1000, client);
    change.insert_be32(1001, client);
    change.insert_u32(1002, 9090);
    change.insert_u32(1003, 9090);
    EXPECT_EQ(sent(tk::command::setObject), std::vector<tk::message>{change});
    EXPECT_EQ(sent(tk::command::addObject).size(), 1u);
    EXPECT_EQ(count(), "2");
    Texts out;
    EXPECT_EQ(specific({"", "80", "TCP"}, out), 0);
    EXPECT_EQ(out, (Texts{"9090", "192.0.2.2", "0", "new", "0"}));
}

TEST_F(PortMappings, AnotherClientMayNotOverwriteAMapping) {
    addMapping({});
    takeLog();
    EXPECT_EQ(addMapping({.internalClient = "192.0.2.3"}), 718);
    EXPECT_EQ(takeLog(), "set map 80->8080, 192.0.2.3\naddPortMapping: CONFLICT_IN_ENTRY\n");
    EXPECT_TRUE(sent(tk::command::setObject).empty());
}

TEST_F(PortMappings, ARefusedCreationLeavesTheTableUnchanged) {
    loop.bus.answer(firewall, tk::command::addObject, tk::errorMsg(1, "no room"));
    EXPECT_EQ(addMapping({}), 501);
    EXPECT_EQ(takeLog(), "add map 80->8080, 192.0.2.2\nadd nat failed: no room\n");
    EXPECT_EQ(count(), "0");
    Texts out;
    EXPECT_EQ(generic("1", out), 713);
}

TEST_F(PortMappings, ARefusedChangeLeavesTheEntryAsItWas) {
    addMapping({});
    takeLog();
    loop.bus.answer(firewall, tk::command::setObject, tk::errorMsg(1, "no"));
    EXPECT_EQ(addMapping({.internalPort = "9090"}), 501);
    EXPECT_EQ(takeLog(), "set map 80->9090, 192.0.2.2\nset nat failed: no\n");
    Texts out;
    EXPECT_EQ(specific({"", "80", "TCP"}, out), 0);
    EXPECT_EQ(out, (Texts{"8080", "192.0.2.2", "1", "web", "0"}));
}

TEST_F(PortMappings, DeleteRemovesTheRuleAndIgnoresTheRemoteHost) {
    addMapping({});
    takeLog();
    EXPECT_EQ(deleteMapping({"10.9.8.7", "80", "TCP"}), 0);
    EXPECT_EQ(takeLog(), "del map 80\n");
    tk::message removal;
    removal.insert_u32_array(0xFF0001, {20, 5});
    removal.insert_u32(0xFE0001, 41);
    EXPECT_EQ(sent(tk::command::removeObject), std::vector<tk::message>{removal});
    EXPECT_EQ(count(), "1");
}

TEST_F(PortMappings, DeleteOfAnUnknownMappingFails) {
    addMapping({});
    takeLog();
    EXPECT_EQ(deleteMapping({"", "81", "TCP"}), 714);
    EXPECT_EQ(deleteMapping({"", "80", "UDP"}), 714);
    EXPECT_EQ(takeLog(), "deletePortMapping: NO_SUCH_ENTRY\ndeletePortMapping: NO_SUCH_ENTRY\n");
    EXPECT_TRUE(sent(tk::command::removeObject).empty());
}

TEST_F(PortMappings, ARefusedRemovalKeepsTheEntry) {
    addMapping({});
    takeLog();
    loop.bus.answer(firewall, tk::command::removeObject, tk::errorMsg(1, "busy"));
    EXPECT_EQ(deleteMapping({"", "80", "TCP"}), 501);
    EXPECT_EQ(takeLog(), "del map 80\nremove nat failed: busy\n");
    EXPECT_EQ(count(), "2");
    Texts out;
    EXPECT_EQ(generic("1", out), 0);
}

TEST_F(PortMappings, AnInvalidClientIsTheBroadcastAddress) {
    loop.bus.answer(firewall, tk::command::addObject, created(1));
    EXPECT_EQ(addMapping({.internalClient = "nonsense"}), 0);
    EXPECT_EQ(sent(tk::command::addObject).back().get_be32(1000), 0xFFFFFFFFu);
}

TEST_F(PortMappings, RulesAddedAfterAnAddressChangeUseTheNewAddress) {
    addMapping({});
    service->setExternalAddress(inet_addr("198.51.100.9"));
    addMapping({.externalPort = "81"});
    ASSERT_EQ(sent(tk::command::addObject).size(), 2u);
    EXPECT_EQ(sent(tk::command::addObject)[1].get_be32(52), inet_addr("198.51.100.9"));
    EXPECT_TRUE(sent(tk::command::setObject).empty());  // the earlier rule keeps its own
}

TEST_F(PortMappings, DescriptionsOfOneHostAreLimitedAndHarmNoOther) {
    const std::string large(std::size_t{1024} * 1024, 'x');
    askAs(client);
    EXPECT_EQ(addMapping({.description = large}), 0);
    takeLog();
    EXPECT_EQ(addMapping({.externalPort = "81", .description = "x"}), 501);
    EXPECT_EQ(addMapping({.description = large + "x"}), 501);
    EXPECT_EQ(takeLog(),
              "add map 81->8080, 192.0.2.2\n"
              "add nat failed: the descriptions of this host's mappings take too much memory\n"
              "set map 80->8080, 192.0.2.2\n"
              "set nat failed: the descriptions of this host's mappings take too much memory\n");
    EXPECT_EQ(sent(tk::command::addObject).size(), 1u);
    EXPECT_TRUE(sent(tk::command::setObject).empty());

    askAs(inet_addr("192.0.2.9"));
    EXPECT_EQ(addMapping({.externalPort = "81", .description = large}), 0);
    askAs(client);
    EXPECT_EQ(addMapping({.description = "short"}), 0);
    EXPECT_EQ(addMapping({.externalPort = "82", .description = large.substr(5)}), 0);
    EXPECT_EQ(addMapping({.externalPort = "83", .description = "x"}), 501);
    EXPECT_EQ(deleteMapping({"", "82", "TCP"}), 0);
    EXPECT_EQ(addMapping({.externalPort = "83", .description = "x"}), 0);
}

TEST_F(PortMappings, DescriptionCountsForTheHostThatChangedItLast) {
    const std::string large(std::size_t{1024} * 1024, 'x');
    askAs(client);
    EXPECT_EQ(addMapping({.description = large}), 0);
    askAs(inet_addr("192.0.2.9"));
    EXPECT_EQ(addMapping({}), 0);
    askAs(client);
    EXPECT_EQ(addMapping({.externalPort = "81", .description = large}), 0);
}

TEST_F(PortMappings, KnowWhoAskedForThemAndSinceWhenTheyExist) {
    askAs(client);
    addMapping({});
    loop.advance(6000);  // a minute
    askAs(inet_addr("192.0.2.9"));
    addMapping({.description = "again"});
    addMapping({.externalPort = "81"});
    const PortMap& changed = service->mappings().at({80, 0});
    EXPECT_EQ(changed.requester, inet_addr("192.0.2.9"));
    EXPECT_EQ(changed.since, firstDate);
    EXPECT_EQ(service->mappings().at({81, 0}).since, firstDate + 60);
}

TEST_F(PortMappings, ThatAreDeletedAndMadeAgainAreNew) {
    addMapping({});
    loop.advance(100);
    deleteMapping({"", "80", "TCP"});
    addMapping({});
    EXPECT_EQ(service->mappings().at({80, 0}).since, firstDate + 1);
}

TEST_F(PortMappings, ThatAreRefusedAreKeptWithTheReasonOfEachCode) {
    askAs(inet_addr("192.0.2.9"));
    addMapping({.remoteHost = "10.0.0.1"});
    addMapping({.externalPort = "", .internalClient = "nowhere"});
    addMapping({.protocol = "UDP", .lease = "3600"});
    addMapping({});
    addMapping({.internalClient = "192.0.2.3"});
    loop.bus.answer(firewall, tk::command::setObject, tk::errorMsg(1, "no change today"));
    addMapping({});
    loop.bus.answer(firewall, tk::command::addObject, tk::errorMsg(1, "no room"));
    addMapping({.externalPort = "81"});
    loop.bus.answer(firewall, tk::command::addObject, tk::errorMsg(1, ""));
    addMapping({.externalPort = "81"});

    const std::uint32_t asker = inet_addr("192.0.2.9");
    const contract::MappingRefusal expected[] = {
        {firstDate, asker, 80, 6, client, 8080, 726, "a mapping for one remote host alone is not supported"},
        {firstDate, asker, 0, 6, 0xFFFFFFFF, 8080, 716, "no external port was given"},
        {firstDate, asker, 80, 17, client, 8080, 725, "a mapping for a limited time is not supported"},
        {firstDate, asker, 80, 6, inet_addr("192.0.2.3"), 8080, 718,
         "the port is mapped to 192.0.2.2 already"},
        {firstDate, asker, 80, 6, client, 8080, 501, "no change today"},
        {firstDate, asker, 81, 6, client, 8080, 501, "no room"},
        {firstDate, asker, 81, 6, client, 8080, 501, "Action Failed"},
    };
    EXPECT_TRUE(
        std::equal(refused.all().begin(), refused.all().end(), std::begin(expected), std::end(expected)));
}

TEST_F(PortMappings, DeletingWhatIsNotThereIsNoRefusedMapping) {
    EXPECT_EQ(deleteMapping({"", "80", "TCP"}), 714);
    EXPECT_TRUE(refused.all().empty());
}

TEST_F(PortMappings, DestructionRemovesEveryRuleInOrderAndGoesOnAfterAFailure) {
    addMapping({.externalPort = "90"});
    addMapping({.externalPort = "80"});
    takeLog();
    loop.bus.answer(firewall, tk::command::removeObject, tk::errorMsg(1, "busy"));
    service.reset();
    EXPECT_EQ(takeLog(), "on cleanup remove nat failed: busy\non cleanup remove nat failed: busy\n");
    const std::vector<tk::message> removals = sent(tk::command::removeObject);
    ASSERT_EQ(removals.size(), 2u);
    EXPECT_EQ(removals[0].get_u32(0xFE0001), 42u);
    EXPECT_EQ(removals[1].get_u32(0xFE0001), 41u);
}

}  // namespace

}  // namespace gateway
