#include "contract/gateway.h"

#include <gtest/gtest.h>

namespace contract {
namespace {

TEST(ContractRole, HasAName) {
    EXPECT_EQ(roleName(Role::none), "none");
    EXPECT_EQ(roleName(Role::external), "external");
    EXPECT_EQ(roleName(Role::internal), "internal");
    EXPECT_EQ(roleName(static_cast<Role>(9)), "9");
}

TEST(ContractSettings, StandInTheirOrder) {
    tk::message expected;
    expected.insert_bool(1, true);
    expected.insert_bool(2, false);
    expected.insert_bool(3, true);
    const Settings settings{true, false, true};
    EXPECT_EQ(settings.toMessage(), expected);
    EXPECT_EQ(Settings::fromMessage(expected, {}), settings);
}

TEST(ContractSettings, ThatAreAbsentKeepWhatTheyWere) {
    EXPECT_EQ(Settings::fromMessage({}, {}), (Settings{false, true, true}));
    tk::message one;
    one.insert_bool(2, true);
    EXPECT_EQ(Settings::fromMessage(one, {true, false, false}), (Settings{true, true, false}));
}

TEST(ContractRoleItem, StandsInTheOrderOfItsRecords) {
    tk::message expected;
    expected.insert_bool(0xFE000A, true);
    expected.insert_u32(1, 7);
    expected.insert_u32(2, 2);
    const RoleItem item{7, Role::internal, true};
    EXPECT_EQ(item.toMessage(), expected);
    EXPECT_EQ(RoleItem::fromMessage(expected, {}), item);
}

TEST(ContractRoleItem, WhatIsAbsentStaysAsItWas) {
    EXPECT_EQ(RoleItem::fromMessage({}, {}), (RoleItem{0, Role::none, false}));
    tk::message type;
    type.insert_u32(2, 1);
    EXPECT_EQ(RoleItem::fromMessage(type, {7, Role::internal, true}), (RoleItem{7, Role::external, true}));
}

TEST(ContractRoleItem, ANumberThatIsNoRoleIsKept) {
    tk::message type;
    type.insert_u32(2, 9);
    EXPECT_EQ(RoleItem::fromMessage(type, {}).toMessage().get_u32(2), 9U);
}

}  // namespace
}  // namespace contract
