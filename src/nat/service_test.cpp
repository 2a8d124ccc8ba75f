// Rules as they are made, changed, removed and listed.

#include "nat/service.h"

#include <gtest/gtest.h>

#include "contract/natrules.h"
#include "nat/testing/servicetest.h"

namespace nat {
namespace {

using links::testing::address;
using testing::natRequest;
using testing::ServiceTest;

TEST_F(ServiceTest, CreatesInTheKernelAndAnswersTheId) {
    EXPECT_EQ(add(natRequest(80, "192.0.2.2", 8080)), 1U);
    EXPECT_EQ(add(natRequest(80, "192.0.2.3", 80, 17)), 2U);
    ASSERT_TRUE(kernel.find("198.51.100.1", 6, 80));
    EXPECT_EQ(kernel.find("198.51.100.1", 6, 80)->port, 8080);
    EXPECT_TRUE(kernel.find("198.51.100.1", 17, 80));
    EXPECT_EQ(kernel.transactions, 2);
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

TEST_F(ServiceTest, TheListComesInPages) {
    addMany(1025);
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
        kernel.counted[keyOf(port)] = {port, std::uint64_t{100} * port};
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

}  // namespace
}  // namespace nat
