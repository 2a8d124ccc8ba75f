#include "nat/service.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "contract/natrules.h"
#include "nat/testing/fakenat.h"
#include "nat/testing/natrequest.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace nat {
namespace {

using links::testing::address;
using testing::natRequest;

class ServiceTest : public ::testing::Test {
protected:
    ServiceTest() {
        nat.attach(bus, {20, 5});
        kernel.owner = &nat;
    }
    /// Whenever a transaction comes, the kernel holds exactly what its table would be made again from.
    void TearDown() override { EXPECT_EQ(kernel.strayedOwner, 0); }
    std::uint32_t add(const tk::message& request) {
        const tk::message reply = nat.cmdAddObj(request);
        EXPECT_EQ(tk::getError(reply), "");
        return reply.get_u32(tk::field::objectId);
    }
    static tk::message ofId(std::uint32_t id) {
        tk::message request;
        request.insert_u32(tk::field::objectId, id);
        return request;
    }
    static tk::message lasting(std::uint32_t port) {
        tk::message request = natRequest(port, "192.0.2.2", port, 6, {1000});
        request.remove(tk::field::dynamic);
        return request;
    }
    static tk::message withOptions(tk::message request, std::uint32_t options) {
        request.insert_u32(tk::field::options, options);
        return request;
    }
    static NatKey keyOf(std::uint16_t port) { return {address("198.51.100.1"), 6, port}; }
    std::uint32_t count() { return nat.cmdGetCount({}).get_u32(tk::field::count); }

    tk::testing::Folder files;
    tk::testing::TestLoop loop;
    tk::testing::ScriptedBus& bus = loop.bus;
    links::testing::FakeZones world;
    testing::FakeNat kernel;
    Policy policy{world.zones};
    testing::FakeListeners listeners;
    RouterPorts ports{world.zones, listeners, {{51820, 51820}}};
    links::testing::FakeRequester requester;
    Service nat{files.file("nat"), policy, ports, kernel, requester};
};

TEST_F(ServiceTest, CreatesInTheKernelAndAnswersTheId) {
    EXPECT_EQ(add(natRequest(80, "192.0.2.2", 8080)), 1U);
    EXPECT_EQ(add(natRequest(80, "192.0.2.3", 80, 17)), 2U);
    ASSERT_TRUE(kernel.find("198.51.100.1", 6, 80));
    EXPECT_EQ(kernel.find("198.51.100.1", 6, 80)->port, 8080);
    EXPECT_TRUE(kernel.find("198.51.100.1", 17, 80));
    EXPECT_EQ(kernel.transactions, 2);
}

TEST_F(ServiceTest, KernelsRefusalIsToldAndNothingIsKept) {
    kernel.fault = "Numerical result out of range";
    std::uint32_t code = 0;
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(natRequest(80, "192.0.2.2", 8080)), &code, &text));
    EXPECT_EQ(code, tk::error::failed);
    EXPECT_EQ(text, kernel.fault);
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(lasting(81)), &code));
    EXPECT_EQ(count(), 0U);
    kernel.fault.clear();
    Service again(files.file("nat"), policy, ports, kernel, requester);
    again.load();
    EXPECT_EQ(again.cmdGetCount({}).get_u32(tk::field::count), 0U);
}

TEST_F(ServiceTest, PolicyRefusesBeforeTheKernelIsAsked) {
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(natRequest(80, "127.0.0.1", 80)), &code));
    EXPECT_EQ(code, tk::error::refused);
    EXPECT_EQ(kernel.transactions, 0);
}

TEST_F(ServiceTest, PolicyCountsForDisabledRulesToo) {
    tk::message request = natRequest(80, "127.0.0.1", 80);
    request.insert_bool(tk::field::disabled, true);
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(request)));
    request = natRequest(80, "192.0.2.2", 80);
    request.insert_bool(tk::field::disabled, true);
    for (const std::uint32_t field :
         {contract::rulefield::dstAddressFirst, contract::rulefield::dstAddressLast})
        request.insert_be32(field, 0);
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(request)));
    EXPECT_EQ(count(), 0U);
}

TEST_F(ServiceTest, ARuleCanBeDisabledWhateverThePolicyHasBecome) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    world.zones.removeLink(2);  // nothing leads there any more
    tk::message change = ofId(id);
    change.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_FALSE(kernel.find("198.51.100.1", 6, 80));
}

TEST_F(ServiceTest, ASecondEnabledRuleOfTheSameMatchIsRefused) {
    add(natRequest(80, "192.0.2.2", 8080));
    std::uint32_t code = 0;
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(natRequest(80, "192.0.2.3", 80)), &code, &text));
    EXPECT_EQ(code, tk::error::exists);
    EXPECT_EQ(text, "tcp 198.51.100.1:80 is mapped already, by rule 1");
    EXPECT_EQ(kernel.find("198.51.100.1", 6, 80)->port, 8080);
}

TEST_F(ServiceTest, DisabledRulesAreNotInTheKernel) {
    tk::message request = natRequest(80, "192.0.2.2", 8080);
    request.insert_bool(tk::field::disabled, true);
    const std::uint32_t id = add(request);
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_EQ(count(), 1U);
    const std::uint32_t other = add(natRequest(80, "192.0.2.3", 80));
    tk::message enable = ofId(id);
    enable.insert_bool(tk::field::disabled, false);
    EXPECT_TRUE(tk::isError(nat.cmdSetObj(enable)));  // its place is taken
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(other))));
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(enable)));
    EXPECT_EQ(kernel.find("198.51.100.1", 6, 80)->address, address("192.0.2.2"));
}

TEST_F(ServiceTest, AChangeReplacesTheElementInOneTransaction) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    tk::message change = ofId(id);
    change.insert_bool(tk::field::disabled, false);
    change.insert_be32(1000, address("192.0.2.9"));
    change.insert_be32(1001, address("192.0.2.9"));
    change.insert_u32(1002, 9);
    change.insert_u32(1003, 9);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_EQ(kernel.transactions, 2);
    EXPECT_EQ(kernel.elements.size(), 1U);
    EXPECT_EQ(*kernel.find("198.51.100.1", 6, 80), (NatTarget{address("192.0.2.9"), 9}));
    change.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_TRUE(nat.cmdGetObj(ofId(id)).get_bool(tk::field::disabled));
}

TEST_F(ServiceTest, ARefusedChangeLeavesTheRule) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    const tk::message before = nat.cmdGetObj(ofId(id));
    tk::message change = ofId(id);
    change.insert_be32(1000, address("224.0.0.1"));
    EXPECT_TRUE(tk::isError(nat.cmdSetObj(change)));
    kernel.fault = "No";
    change.insert_be32(1000, address("192.0.2.9"));
    EXPECT_TRUE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_EQ(nat.cmdGetObj(ofId(id)), before);
}

TEST_F(ServiceTest, RemovingWhatIsGoneSucceeds) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(id))));
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(id))));
    EXPECT_EQ(add(natRequest(80, "192.0.2.2", 8080)), 2U);  // an id is never used again
}

TEST_F(ServiceTest, DynamicRulesGoWithTheirOwnerInOneTransaction) {
    for (std::uint32_t port = 1; port <= 5; ++port) add(natRequest(port, "192.0.2.2", port));
    add(natRequest(6, "192.0.2.2", 6, 6, {1000}));
    add(lasting(7));
    const int before = kernel.transactions;
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(kernel.transactions, before + 1);
    EXPECT_EQ(count(), 2U);
    EXPECT_FALSE(kernel.find("198.51.100.1", 6, 1));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 6));
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(kernel.transactions, before + 1);
}

TEST_F(ServiceTest, RulesThatCannotGoWithTheirOwnerAreTriedAgainEachSecond) {
    add(natRequest(1, "192.0.2.2", 1));
    add(natRequest(2, "192.0.2.2", 2));
    kernel.fault = "Cannot allocate memory";
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80}), nullptr, &text));
    EXPECT_EQ(text, kernel.fault);
    loop.advance(350);
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(kernel.elements.size(), 2U);
    const int before = kernel.transactions;
    bus.posted.clear();
    kernel.fault.clear();
    loop.advance(49);
    EXPECT_EQ(count(), 2U);
    loop.advance(1);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_EQ(kernel.transactions, before + 1);
    ASSERT_EQ(bus.posted.size(), 1U);
    EXPECT_EQ(bus.posted.front().size_message_array(tk::field::objects), 2U);
    loop.advance(1000);
    EXPECT_EQ(kernel.transactions, before + 1);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(ServiceTest, ManyRulesGoWithTheirOwnerInTransactionsOfBoundedSize) {
    for (std::uint32_t port = 1; port <= 5000; ++port) add(natRequest(port, "192.0.2.2", port));
    add(natRequest(6000, "192.0.2.2", 6000, 6, {1000}));
    kernel.largest = 2048;
    bus.posted.clear();
    EXPECT_FALSE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(kernel.elements.size(), 1U);
    std::size_t told = 0;
    for (const tk::message& notification : bus.posted)
        told += notification.size_message_array(tk::field::objects);
    EXPECT_EQ(told, 5000U);
}

TEST_F(ServiceTest, WhatOneTransactionTookOutStaysOutWhenTheNextIsRefused) {
    for (std::uint32_t port = 1; port <= 3000; ++port) add(natRequest(port, "192.0.2.2", port));
    kernel.transactionsLeft = 1;
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    EXPECT_EQ(count(), 3000U - 2048U);
    EXPECT_EQ(kernel.elements.size(), 3000U - 2048U);
    kernel.transactionsLeft.reset();
    loop.advance(100);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
}

TEST_F(ServiceTest, WithdrawsAllRulesFromTheKernelAndNoneFromTheStore) {
    for (std::uint32_t port = 1; port <= 3000; ++port) add(natRequest(port, "192.0.2.2", port));
    add(lasting(3001));
    tk::message request = natRequest(3002, "192.0.2.2", 3002);
    request.insert_bool(tk::field::disabled, true);
    add(request);
    kernel.largest = 2048;
    nat.withdraw();
    EXPECT_TRUE(kernel.elements.empty());
    Service again(files.file("nat"), policy, ports, kernel, requester);
    again.load();
    EXPECT_EQ(again.cmdGetCount({}).get_u32(tk::field::count), 1U);
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 3001));
}

TEST_F(ServiceTest, StoredRulesAreLimitedAndDynamicOnesAreNot) {
    Service small(files.file("few"), policy, ports, kernel, requester, 2);
    small.attach(bus, {20, 5});
    kernel.owner = &small;
    EXPECT_FALSE(tk::isError(small.cmdAddObj(lasting(1))));
    EXPECT_FALSE(tk::isError(small.cmdAddObj(natRequest(10, "192.0.2.2", 10))));
    const tk::message second = small.cmdAddObj(lasting(2));
    EXPECT_FALSE(tk::isError(second));
    std::uint32_t code = 0;
    std::string text;
    EXPECT_TRUE(tk::isError(small.cmdAddObj(lasting(3)), &code, &text));
    EXPECT_EQ(code, tk::error::busy);
    EXPECT_EQ(text, "there are 2 stored rules already, and 2 is the most");
    EXPECT_TRUE(tk::isError(small.cmdUnknown(lasting(3), contract::testRule), &code));
    EXPECT_EQ(code, tk::error::busy);
    EXPECT_FALSE(tk::isError(small.cmdUnknown(natRequest(3, "192.0.2.2", 3), contract::testRule)));
    EXPECT_FALSE(tk::isError(small.cmdAddObj(natRequest(3, "192.0.2.2", 3))));
    tk::message change = ofId(second.get_u32(tk::field::objectId));
    change.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(small.cmdSetObj(change)));
    EXPECT_FALSE(tk::isError(small.cmdRemoveObj(change)));
    EXPECT_FALSE(tk::isError(small.cmdAddObj(lasting(4))));
}

TEST_F(ServiceTest, StoredRulesBeyondTheLimitAreLoaded) {
    for (std::uint32_t port = 1; port <= 3; ++port) add(lasting(port));
    testing::FakeNat fresh;
    Service small(files.file("nat"), policy, ports, fresh, requester, 2);
    small.load();
    EXPECT_EQ(fresh.elements.size(), 3U);
    EXPECT_TRUE(tk::isError(small.cmdAddObj(lasting(4))));
}

TEST_F(ServiceTest, AProgramThatComesBackKeepsItsNewRulesWhenTheOldOnesGo) {
    add(natRequest(1, "192.0.2.2", 1));
    kernel.fault = "Cannot allocate memory";
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    kernel.fault.clear();
    const std::uint32_t kept = add(natRequest(2, "192.0.2.2", 2));
    loop.advance(100);
    EXPECT_EQ(count(), 1U);
    EXPECT_FALSE(tk::isError(nat.cmdGetObj(ofId(kept))));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 2));
    EXPECT_FALSE(kernel.find("198.51.100.1", 6, 1));
}

TEST_F(ServiceTest, RulesThatOutlivedTheirOwnerAreRemovedInTheirLatestForm) {
    const std::uint32_t removed = add(natRequest(1, "192.0.2.2", 1));
    const std::uint32_t disabled = add(natRequest(2, "192.0.2.2", 2));
    const std::uint32_t moved = add(natRequest(3, "192.0.2.2", 3));
    kernel.fault = "Cannot allocate memory";
    EXPECT_TRUE(tk::isError(nat.cmdDisconnected({80})));
    kernel.fault.clear();
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(removed))));
    tk::message change = ofId(disabled);
    change.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    change = ofId(moved);
    change.insert_u32(9, 4);
    change.insert_u32(10, 4);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    ASSERT_TRUE(kernel.find("198.51.100.1", 6, 4));
    loop.advance(100);
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(kernel.elements.empty());
}

TEST_F(ServiceTest, OnlyLastingRulesAreStored) {
    add(natRequest(80, "192.0.2.2", 8080));
    const std::uint32_t id = add(lasting(7));
    tk::message change = ofId(id);
    change.insert_u32(1002, 77);
    change.insert_u32(1003, 77);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(change)));
    testing::FakeNat fresh;
    Service again(files.file("nat"), policy, ports, fresh, requester);
    again.load();
    EXPECT_EQ(fresh.elements.size(), 1U);
    EXPECT_EQ(again.cmdGetObj(ofId(id)), nat.cmdGetObj(ofId(id)));
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(id))));
    Service empty(files.file("nat"), policy, ports, fresh, requester);
    empty.load();
    EXPECT_EQ(empty.cmdGetCount({}).get_u32(tk::field::count), 0U);
}

TEST_F(ServiceTest, AStoreThatCannotBeWrittenRefusesBeforeTheKernelIsAsked) {
    files.write("file", "");
    Service blocked(files.file("file/nat"), policy, ports, kernel, requester);
    blocked.attach(bus, {20, 5});
    kernel.owner = &blocked;
    EXPECT_TRUE(tk::isError(blocked.cmdAddObj(lasting(7))));
    EXPECT_EQ(kernel.transactions, 0);
    EXPECT_FALSE(tk::isError(blocked.cmdAddObj(natRequest(80, "192.0.2.2", 8080))));
}

TEST_F(ServiceTest, ARuleThatCannotBeStoredIsTakenBack) {
    ASSERT_EQ(::mkdir(files.file("nat").c_str(), 0700), 0);  // takes the place of the file
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(lasting(80)), &code));
    EXPECT_EQ(code, tk::error::failed);
    EXPECT_EQ(kernel.transactions, 2);
    EXPECT_TRUE(kernel.elements.empty());
    EXPECT_EQ(count(), 0U);
}

TEST_F(ServiceTest, ARuleThatCannotBeTakenBackIsListed) {
    ASSERT_EQ(::mkdir(files.file("nat").c_str(), 0700), 0);
    kernel.transactionsLeft = 1;
    EXPECT_EQ(add(lasting(80)), 1U);
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 80));
    EXPECT_EQ(count(), 1U);
}

TEST_F(ServiceTest, TheListComesInPages) {
    for (std::uint32_t port = 1; port <= 1025; ++port) add(natRequest(port, "192.0.2.2", port));
    const tk::message first = nat.cmdGetAll({});
    EXPECT_EQ(first.size_message_array(tk::field::objects), 1024U);
    tk::message rest;
    rest.insert_u32(tk::field::next, first.get_u32(tk::field::next));
    const tk::message second = nat.cmdGetAll(rest);
    EXPECT_EQ(second.size_message_array(tk::field::objects), 1U);
    EXPECT_FALSE(second.has(tk::field::next));
}

TEST_F(ServiceTest, RecordsOfDynamicRulesNameTheirOwner) {
    EXPECT_EQ(nat.cmdGetObj(ofId(add(natRequest(1, "192.0.2.2", 1)))).get_u32(1102), 80U);
    EXPECT_EQ(nat.cmdGetObj(ofId(add(natRequest(2, "192.0.2.2", 2, 6, {1003})))).get_u32(1102), 1003U);
    EXPECT_FALSE(nat.cmdGetObj(ofId(add(lasting(3)))).has(1102));
}

TEST_F(ServiceTest, TrafficIsToldOnlyWhenItIsAskedFor) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    EXPECT_FALSE(nat.cmdGetObj(ofId(id)).has(1100));
    EXPECT_FALSE(nat.cmdGetAll(withOptions({}, 255)).get_message_array(tk::field::objects)[0].has(1100));
    EXPECT_EQ(kernel.readings, 0);
    kernel.counted[keyOf(80)] = {12, 3456};
    const tk::message record = nat.cmdGetObj(withOptions(ofId(id), 256));
    EXPECT_EQ(record.get_u64(1100), 12U);
    EXPECT_EQ(record.get_u64(1101), 3456U);
    EXPECT_EQ(contract::NatRule::fromMessage(record).key, keyOf(80));
}

TEST_F(ServiceTest, AListAsksTheKernelOnceForTheTrafficOfAPage) {
    for (std::uint16_t port = 1; port <= 1025; ++port) {
        add(natRequest(port, "192.0.2.2", port));
        kernel.counted[keyOf(port)] = {port, 100U * port};
    }
    tk::message disable = ofId(2);
    disable.insert_bool(tk::field::disabled, true);
    EXPECT_FALSE(tk::isError(nat.cmdSetObj(disable)));
    const tk::message page = nat.cmdGetAll(withOptions({}, 256));
    EXPECT_EQ(kernel.readings, 1);
    for (const tk::message& record : page.get_message_array(tk::field::objects)) {
        const std::uint32_t port = record.get_u32(contract::rulefield::dstPortFirst);
        EXPECT_EQ(record.get_u64(1100), port == 2 ? 0 : port);
        EXPECT_EQ(record.get_u64(1101, 1), port == 2 ? 0 : 100U * port);
    }
    tk::message rest = withOptions({}, 256);
    rest.insert_u32(tk::field::next, page.get_u32(tk::field::next));
    EXPECT_EQ(nat.cmdGetAll(rest).get_message_array(tk::field::objects)[0].get_u64(1100), 1025U);
}

TEST_F(ServiceTest, TestingARuleChangesNothing) {
    EXPECT_TRUE(nat.cmdUnknown(natRequest(80, "192.0.2.2", 8080), contract::testRule).empty());
    EXPECT_TRUE(tk::isError(nat.cmdUnknown(natRequest(80, "127.0.0.1", 8080), contract::testRule)));
    EXPECT_TRUE(tk::isError(nat.cmdUnknown({}, contract::testRule)));
    EXPECT_EQ(count(), 0U);
    EXPECT_EQ(kernel.transactions, 0);
}

TEST_F(ServiceTest, ChangesAreTold) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    const tk::message record = nat.cmdGetObj(ofId(id));
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(ofId(id))));
    ASSERT_EQ(bus.posted.size(), 2U);
    EXPECT_EQ(bus.posted[0].get_message_array(tk::field::objects), (std::vector<tk::message>{record}));
    const tk::message& removed = bus.posted[1].get_message_array(tk::field::objects).front();
    EXPECT_EQ(removed.get_u32(tk::field::objectId), id);
    EXPECT_EQ(removed.get_u32(tk::field::deleted), 1U);
}

/// A user other than root asks, from the connection of program 80 unless a test says otherwise.
class ProgramsServiceTest : public ServiceTest {
protected:
    ProgramsServiceTest() { requester.asker = 64002; }
    /// Why a rule for this port is refused; empty when it is not.
    std::string outcome(std::uint32_t port, std::uint32_t protocol = 6) {
        return tk::getError(nat.cmdAddObj(natRequest(port, "192.0.2.2", 8080, protocol)));
    }
    static tk::message from(const tk::Path& sender, tk::message request) {
        request.insert_u32_array(tk::field::sender, sender);
        return request;
    }
    std::uint32_t addAsRoot(const tk::message& request) {
        requester.asker = 0;
        const std::uint32_t id = add(request);
        requester.asker = 64002;
        return id;
    }
};

TEST_F(ProgramsServiceTest, AProgramsRuleIsForAnAddressThatTheRouterHoldsOutside) {
    for (const char* foreign : {"1.1.1.1", "198.51.100.2", "192.0.2.1"}) {
        tk::message request = natRequest(443, "192.0.2.2", 443);
        request.insert_be32(contract::rulefield::dstAddressFirst, address(foreign));
        request.insert_be32(contract::rulefield::dstAddressLast, address(foreign));
        const std::string why = "destination " + std::string(foreign) +
                                " refused: it is no address of an outside interface of the router";
        EXPECT_EQ(tk::getError(nat.cmdAddObj(request)), why);
        requester.asker = 0;
        EXPECT_FALSE(tk::isError(nat.cmdAddObj(request)));
        requester.asker = 64002;
    }
}

TEST_F(ProgramsServiceTest, AProgramsRuleMayChangeAfterItsAddressIsGoneButNotWhileThatIsInside) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    tk::message change = from({80, 0}, ofId(id));
    change.insert_u32(contract::rulefield::toPortFirst, 8081);
    change.insert_u32(contract::rulefield::toPortLast, 8081);
    const links::LinkAddress held{3, address("198.51.100.1"), address("198.51.100.1"), 24, true};
    world.zones.remove(held);
    EXPECT_EQ(tk::getError(nat.cmdSetObj(change)), "");
    world.hold(2, "198.51.100.1", 24);
    EXPECT_NE(tk::getError(nat.cmdSetObj(change)), "");
}

TEST_F(ProgramsServiceTest, AProgramMakesOnlyDynamicRules) {
    std::uint32_t code = 0;
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(lasting(80)), &code, &text));
    EXPECT_EQ(code, tk::error::notAllowed);
    EXPECT_EQ(text, "only root may make a rule that is not dynamic");
    EXPECT_EQ(kernel.transactions, 0);
    EXPECT_EQ(outcome(80), "");
}

TEST_F(ProgramsServiceTest, AProgramDoesNotTouchWhatIsNotItsOwn) {
    const std::uint32_t stored = addAsRoot(lasting(1));
    const std::uint32_t ofOther = add(natRequest(2, "192.0.2.2", 2, 6, {1001}));
    for (const std::uint32_t id : {stored, ofOther}) {
        std::uint32_t code = 0;
        std::string text;
        tk::message change = from({80, 0}, ofId(id));
        change.insert_bool(tk::field::disabled, true);
        EXPECT_TRUE(tk::isError(nat.cmdSetObj(change), &code, &text));
        EXPECT_EQ(code, tk::error::notAllowed);
        EXPECT_EQ(text, "the rule is not yours");
        EXPECT_TRUE(tk::isError(nat.cmdRemoveObj(from({80, 0}, ofId(id))), &code));
        EXPECT_EQ(code, tk::error::notAllowed);
    }
    EXPECT_EQ(kernel.elements.size(), 2U);
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({1001}, ofId(ofOther)))));
}

TEST_F(ProgramsServiceTest, RemovingWhatRootRemovedBeforeSucceeds) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 80));
    requester.asker = 0;
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({1002}, ofId(id)))));
    requester.asker = 64002;
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({80, 0}, ofId(id)))));
}

TEST_F(ProgramsServiceTest, AStoredRuleIsNotThatOfAProgramWithTheNumberOfNobody) {
    const std::uint32_t id = addAsRoot(lasting(1));
    EXPECT_TRUE(tk::isError(nat.cmdRemoveObj(from({0}, ofId(id)))));
}

TEST_F(ProgramsServiceTest, NoProgramGetsAPortOfTheRoutersOwn) {
    listeners.heard.insert({{address("198.51.100.1"), 6, 22}, 3});
    EXPECT_EQ(outcome(22), "tcp 198.51.100.1:22 refused: a service of the router listens there");
    EXPECT_EQ(outcome(22, 17), "");
    EXPECT_EQ(outcome(51820, 17), "external port 51820 refused: it is one of the router's own");
    EXPECT_EQ(kernel.transactions, 1);
    addAsRoot(natRequest(22, "192.0.2.2", 22));
    addAsRoot(natRequest(51820, "192.0.2.2", 1, 17));
}

TEST_F(ProgramsServiceTest, ARuleIsNotMovedToAPortOfTheRoutersOwn) {
    listeners.heard.insert({{address("198.51.100.1"), 6, 22}, 3});
    tk::message change = from({80, 0}, ofId(add(natRequest(80, "192.0.2.2", 80))));
    change.insert_u32(contract::rulefield::dstPortFirst, 22);
    change.insert_u32(contract::rulefield::dstPortLast, 22);
    EXPECT_TRUE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 80));
}

TEST_F(ProgramsServiceTest, ADisabledRuleGetsNoPortOfTheRoutersOwnEither) {
    tk::message request = natRequest(51820, "192.0.2.2", 80);
    request.insert_bool(tk::field::disabled, true);
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(request)));
}

TEST_F(ProgramsServiceTest, RootsTestAnswersAsForAProgram) {
    requester.asker = 0;
    const tk::message answer = nat.cmdUnknown(natRequest(51820, "192.0.2.2", 80), contract::testRule);
    EXPECT_EQ(tk::getError(answer), "external port 51820 refused: it is one of the router's own");
}

TEST_F(ProgramsServiceTest, RefusalsAreLoggedAndAFloodOfThemIsCounted) {
    const tk::testing::CapturedOutput output;
    for (int i = 0; i < 100; ++i) (void)outcome(51820);  // only the log counts
    nat.withdraw();                                      // as at the end
    EXPECT_EQ(output.text(),
              "nat: rule of user 64002 refused: external port 51820 refused: it is one of the router's own\n"
              "nat: 99 more rules refused, the last of user 64002: external port 51820 refused: it is one of "
              "the router's own\n");
}

}  // namespace
}  // namespace nat
