// Rules that outlast the router: what is stored, loaded and limited.

#include "nat/service.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "nat/testing/servicetest.h"

namespace nat {
namespace {

using testing::natRequest;
using testing::ServiceTest;

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

TEST_F(ServiceTest, WithdrawsAllRulesFromTheKernelAndNoneFromTheStore) {
    addMany(3000);
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

}  // namespace
}  // namespace nat
