#include "links/interfaces.h"

#include <net/if.h>

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "links/addresses.h"
#include "links/testing/fakekernel.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/folder.h"
#include "tk/testing/scriptedbus.h"
#include "tk/testing/testloop.h"

namespace links {
namespace {

using testing::address;

constexpr std::uint32_t running = IFF_UP | IFF_RUNNING;

Link link(std::uint32_t index, const std::string& name, std::uint32_t flags = running) {
    Link made;
    made.index = index;
    made.name = name;
    made.hardwareType = 1;
    made.flags = flags;
    return made;
}

/// A notification as one line: of an interface, its status or an address.
std::string asLine(const tk::message& notification) {
    const bool isRecord = notification.get_u32(tk::field::command) == 0x10004;
    const tk::message record =
        isRecord ? notification : notification.get_message_array(tk::field::objects).front();
    const std::string id = std::to_string(record.get_u32(tk::field::objectId));
    if (notification.get_u32_array(tk::field::sender) == tk::Path{20, 1})
        return "address " + id + " on " + std::to_string(record.get_u32(5)) +
               (record.get_u32(tk::field::deleted) != 0 ? " deleted" : "");
    if (isRecord) return "interface " + id + (record.get_u32(0x10003) != 0 ? " gone" : "");
    return "status " + id + (record.get_bool(tk::field::disabled) ? " disabled" : "") +
           (record.get_bool(0x1000E) ? " running" : "");
}

class InterfacesTest : public ::testing::Test {
protected:
    InterfacesTest() {
        interfaces.attach(bus, {20, 0});
        addresses.attach(bus, {20, 1});
        interfaces.addWatcher(addresses);
    }
    /// What was told since the last call.
    std::vector<std::string> told() {
        std::vector<std::string> lines;
        for (const tk::message& notification : bus.posted) lines.push_back(asLine(notification));
        bus.posted.clear();
        return lines;
    }
    using Lines = std::vector<std::string>;

    tk::testing::Folder files;
    tk::testing::TestLoop loop;
    tk::testing::ScriptedBus bus;
    testing::FakeNetwork network;
    hub::testing::FakeProcesses processes;
    testing::FakeZones world;
    testing::FakeRequester requester;
    LinkSwitch links{{}, network, processes};
    InterfaceIds ids{files.file("interfaces")};
    Interfaces interfaces{ids, network, world.zones, {links, requester}};
    Addresses addresses;
};

const LinkAddress lanAddress{2, address("192.0.2.1"), address("192.0.2.1"), 24};

TEST_F(InterfacesTest, ANewInterfaceIsToldWithItsStatusAndThenItsAddresses) {
    addresses.apply(lanAddress);
    EXPECT_EQ(told(), Lines{});
    interfaces.apply(link(2, "lan0"));
    EXPECT_EQ(told(), (Lines{"interface 1", "status 1 running", "address 1 on 1"}));
}

TEST_F(InterfacesTest, RecordHoldsWhatIsPromised) {
    Link lan = link(2, "lan0", IFF_UP);
    lan.alias = "Office";
    interfaces.apply(lan);
    tk::message expected;
    expected.insert_u32(0xFE0001, 1);
    expected.insert_u32(0x10001, 1);
    expected.insert_u32(0x10003, 0);
    expected.insert_u32(0x10004, 2);
    expected.insert_string(0x10005, "lan0");
    expected.insert_string(0x10006, "Office");
    expected.insert_bool(0xFE000A, false);
    expected.insert_bool(0x1000E, false);
    EXPECT_EQ(interfaces.cmdGetAll({}).get_message_array(tk::field::objects),
              (std::vector<tk::message>{expected}));
    EXPECT_EQ(interfaces.cmdUnknown({}, 1), interfaces.cmdGetAll({}));
}

TEST_F(InterfacesTest, TellsOnlyWhatChanged) {
    interfaces.apply(link(2, "lan0"));
    told();
    interfaces.apply(link(2, "lan0"));
    EXPECT_EQ(told(), Lines{});
    interfaces.apply(link(2, "lan0", IFF_UP));
    EXPECT_EQ(told(), (Lines{"status 1"}));
    interfaces.apply(link(2, "lan0", 0));
    EXPECT_EQ(told(), (Lines{"status 1 disabled"}));
    Link renamed = link(2, "lan0", 0);
    renamed.alias = "Office";
    interfaces.apply(renamed);
    EXPECT_EQ(told(), (Lines{"interface 1"}));
}

TEST_F(InterfacesTest, AnInterfaceThatGoesTakesItsAddressesFirst) {
    interfaces.apply(link(2, "lan0"));
    addresses.apply(lanAddress);
    told();
    interfaces.remove(2);
    EXPECT_EQ(told(), (Lines{"address 1 on 1 deleted", "interface 1 gone"}));
    interfaces.remove(2);
    EXPECT_EQ(told(), Lines{});
    EXPECT_EQ(interfaces.cmdGetAll({}).size_message_array(tk::field::objects), 0U);
    EXPECT_EQ(addresses.cmdGetAll({}).size_message_array(tk::field::objects), 0U);
}

TEST_F(InterfacesTest, TheSameNameComesBackWithItsIdAndAnotherNameNeverGetsIt) {
    interfaces.apply(link(2, "ppp0"));
    interfaces.remove(2);
    interfaces.apply(link(9, "ppp1"));
    interfaces.apply(link(10, "ppp0"));
    EXPECT_EQ(told(), (Lines{"interface 1", "status 1 running", "interface 1 gone", "interface 2",
                             "status 2 running", "interface 1", "status 1 running"}));
}

TEST_F(InterfacesTest, ARenamedInterfaceIsAnotherOneWithNewAddressObjects) {
    interfaces.apply(link(2, "eth0"));
    addresses.apply(lanAddress);
    told();
    interfaces.apply(link(2, "lan0"));
    EXPECT_EQ(told(), (Lines{"address 1 on 1 deleted", "interface 1 gone", "interface 2", "status 2 running",
                             "address 2 on 2"}));
}

TEST_F(InterfacesTest, AnInterfaceMadeAnewIsToldAsSuchEvenIfItsEndWasMissed) {
    interfaces.apply(link(2, "ppp0"));
    told();
    interfaces.apply(link(7, "ppp0"));
    EXPECT_EQ(told(), (Lines{"interface 1 gone", "interface 1", "status 1 running"}));
}

TEST_F(InterfacesTest, NamesOfPresentInterfacesAreNotForgottenForThoseThatCome) {
    InterfaceIds few(files.file("few"), 2);
    Interfaces crowded(few, network, world.zones, {links, requester});
    crowded.attach(bus, {20, 0});
    crowded.apply(link(2, "ppp0"));
    crowded.apply(link(3, "lan0"));
    crowded.remove(2);
    crowded.apply(link(4, "ppp1"));
    crowded.apply(link(5, "ppp0"));
    EXPECT_EQ(few.idOf("lan0"), 2U);
    EXPECT_EQ(few.idOf("ppp1"), 3U);
    EXPECT_EQ(few.idOf("ppp0"), 4U) << "it was forgotten while it was absent";
}

TEST_F(InterfacesTest, AFullListForgetsNoNameThatStandsFurtherDown) {
    InterfaceIds few(files.file("few"), 2);
    EXPECT_EQ(few.idOf("lan0"), 1U);
    EXPECT_EQ(few.idOf("wan0"), 2U);
    Interfaces crowded(few, network, world.zones, {links, requester});
    crowded.attach(bus, {20, 0});
    crowded.applyAll({link(2, "new0"), link(3, "wan0"), link(4, "lan0")});
    EXPECT_EQ(few.idOf("lan0"), 1U);
    EXPECT_EQ(few.idOf("wan0"), 2U);
}

TEST_F(InterfacesTest, LoopbackIsNotOffered) {
    interfaces.apply(link(1, "lo", running | IFF_LOOPBACK));
    addresses.apply({1, address("127.0.0.1"), address("127.0.0.1"), 8});
    EXPECT_EQ(told(), Lines{});
}

TEST_F(InterfacesTest, AFullListYieldsTheDifferences) {
    interfaces.applyAll({link(2, "lan0"), link(3, "wan0")});
    addresses.applyAll({lanAddress, {3, address("198.51.100.1"), address("198.51.100.1"), 24}});
    told();
    interfaces.applyAll({link(2, "lan0", IFF_UP), link(4, "dmz0")});
    addresses.applyAll({lanAddress, {4, address("203.0.113.1"), address("203.0.113.1"), 24}});
    EXPECT_EQ(told(), (Lines{"address 2 on 2 deleted", "interface 2 gone", "status 1", "interface 3",
                             "status 3 running", "address 3 on 3"}));
}

TEST_F(InterfacesTest, AnAddressWithTwoPrefixesIsOneObject) {
    interfaces.apply(link(2, "lan0"));
    told();
    LinkAddress host = lanAddress;
    host.prefixLength = 32;
    addresses.apply(lanAddress);
    addresses.apply(host);
    EXPECT_EQ(told(), (Lines{"address 1 on 1"}));
    addresses.remove(lanAddress);
    EXPECT_EQ(told(), Lines{});
    addresses.remove(host);
    EXPECT_EQ(told(), (Lines{"address 1 on 1 deleted"}));
    addresses.apply(host);
    EXPECT_EQ(told(), (Lines{"address 2 on 1"}));  // an id is never used again
}

TEST_F(InterfacesTest, AnAddressOfItsLinkAloneIsNotOffered) {
    LinkAddress narrow = lanAddress;
    narrow.isGlobal = false;
    addresses.apply(narrow);
    interfaces.apply(link(2, "lan0"));
    told();
    EXPECT_EQ(addresses.cmdGetCount({}).get_u32(tk::field::count), 0U);
    addresses.applyAll({narrow});
    addresses.remove(narrow);
    EXPECT_EQ(told(), Lines{});
}

TEST_F(InterfacesTest, AnAddressIsOfferedWhileOneOfItsScopesIsGlobal) {
    interfaces.apply(link(2, "lan0"));
    told();
    LinkAddress narrow = lanAddress;
    narrow.prefixLength = 16;
    narrow.isGlobal = false;
    addresses.apply(narrow);
    addresses.apply(lanAddress);
    EXPECT_EQ(told(), (Lines{"address 1 on 1"}));
    addresses.remove(lanAddress);
    EXPECT_EQ(told(), (Lines{"address 1 on 1 deleted"}));
    addresses.applyAll({lanAddress, narrow});
    EXPECT_EQ(told(), (Lines{"address 2 on 1"}));
    addresses.applyAll({narrow});
    EXPECT_EQ(told(), (Lines{"address 2 on 1 deleted"}));
}

TEST_F(InterfacesTest, AddressRecordHoldsWhatIsPromised) {
    interfaces.apply(link(2, "lan0"));
    addresses.apply(lanAddress);
    tk::message expected;
    expected.insert_u32(0xFE0001, 1);
    expected.insert_be32(1, address("192.0.2.1"));
    expected.insert_u32(5, 1);
    expected.insert_bool(0xFE000A, false);
    EXPECT_EQ(addresses.cmdGetAll({}).get_message_array(tk::field::objects),
              (std::vector<tk::message>{expected}));
}

TEST_F(InterfacesTest, CountersComeOnDemand) {
    interfaces.apply(link(2, "wan0"));
    network.links[2] = link(2, "wan0");
    network.links[2].counters = {1, 2, 5000000000, 4};
    tk::message request;
    request.insert_u32(tk::field::objectId, 1);
    EXPECT_FALSE(interfaces.cmdGetObj(request).has(0x100FC));
    request.insert_u32(0xFE000C, 256);
    const tk::message reply = interfaces.cmdGetObj(request);
    EXPECT_EQ(reply.get_u64(0x100FE), 1U);
    EXPECT_EQ(reply.get_u64(0x100FF), 2U);
    EXPECT_EQ(reply.get_u64(0x100FC), 5000000000U);
    EXPECT_EQ(reply.get_u64(0x100FD), 4U);
    network.links.clear();
    EXPECT_EQ(tk::getError(interfaces.cmdGetObj(request)), "No such device");
    request.insert_u32(tk::field::objectId, 9);
    EXPECT_EQ(tk::getError(interfaces.cmdGetObj(request)), "no interface 9");
}

TEST_F(InterfacesTest, SettingAsksTheKernel) {
    interfaces.apply(link(2, "wan0"));
    tk::message request;
    request.insert_u32(tk::field::objectId, 1);
    request.insert_bool(tk::field::disabled, true);
    EXPECT_TRUE(interfaces.cmdSetObj(request).empty());
    request.insert_bool(tk::field::disabled, false);
    EXPECT_TRUE(interfaces.cmdSetObj(request).empty());
    EXPECT_EQ(network.switched, (std::vector<std::pair<std::uint32_t, bool>>{{2, false}, {2, true}}));
    network.fault = "Operation not permitted";
    EXPECT_EQ(tk::getError(interfaces.cmdSetObj(request)), "Operation not permitted");
}

TEST_F(InterfacesTest, SettingIsForRootUnlessTheConfigurationSaysOtherwise) {
    interfaces.apply(link(2, "wan0"));
    tk::message request;
    request.insert_u32(tk::field::objectId, 1);
    request.insert_bool(tk::field::disabled, true);
    requester.asker = 998;
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(interfaces.cmdSetObj(request), &code));
    EXPECT_EQ(code, tk::error::notAllowed);
    EXPECT_TRUE(network.switched.empty());
}

TEST_F(InterfacesTest, TellWhichSideAnInterfaceIsOn) {
    interfaces.apply(link(2, "lan0"));
    interfaces.apply(link(3, "wan0"));
    const auto side = [this](std::uint32_t id) {
        tk::message request;
        request.insert_u32(1, id);
        const tk::message reply = interfaces.cmdUnknown(request, 2);
        return std::to_string(reply.get_u32(1)) + " " + reply.get_string(2) + tk::getError(reply);
    };
    EXPECT_EQ(side(1), "1 it carries no route beyond the private ranges");
    EXPECT_EQ(side(2), "2 it carries, or has carried, a route to 0.0.0.0/0");
    EXPECT_EQ(side(3), "0 no interface 3");
}

}  // namespace
}  // namespace links
