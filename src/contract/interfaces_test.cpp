#include "contract/interfaces.h"

#include <gtest/gtest.h>

namespace contract {
namespace {

InterfaceRecord full() {
    return {7, 1, 0, 3, "wan0", "uplink", false, true, InterfaceCounters{1, 2, 3, 4}};
}

TEST(InterfaceRecord, ComesBackAsItWasSent) {
    EXPECT_EQ(InterfaceRecord::fromMessage(full().toMessage()), full());
    EXPECT_EQ(InterfaceRecord::fromMessage(InterfaceRecord().toMessage()), InterfaceRecord());
}

TEST(InterfaceRecord, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u32(0xFE0001, 7);
    expected.insert_u32(0x10001, 1);
    expected.insert_u32(0x10003, 0);
    expected.insert_u32(0x10004, 3);
    expected.insert_string(0x10005, "wan0");
    expected.insert_string(0x10006, "uplink");
    expected.insert_bool(0xFE000A, false);
    expected.insert_bool(0x1000E, true);
    expected.insert_u64(0x100FE, 1);
    expected.insert_u64(0x100FF, 2);
    expected.insert_u64(0x100FC, 3);
    expected.insert_u64(0x100FD, 4);
    EXPECT_EQ(full().toMessage().serialise(), expected.serialise());
}

TEST(InterfaceRecord, TellsWhatIsAbsentFromWhatIsFalse) {
    tk::message status;
    status.insert_u32(0xFE0001, 7);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).disabled, std::nullopt);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).running, std::nullopt);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).displayName, std::nullopt);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).counters, std::nullopt);
    status.insert_bool(0xFE000A, false);
    status.insert_bool(0x1000E, true);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).disabled, false);
    EXPECT_EQ(InterfaceRecord::fromMessage(status).running, true);
}

TEST(InterfaceRecord, EveryBitOfTheFlagsSaysThatItIsGone) {
    EXPECT_FALSE(full().isGone());
    for (const std::uint32_t flags : {0x82U, 0x80U, 0x02U}) {
        InterfaceRecord record = full();
        record.flags = flags;
        EXPECT_TRUE(record.isGone()) << flags;
    }
}

TEST(SideReply, ComesBackAsItWasSent) {
    for (const Side side : {Side::neither, Side::inside, Side::outside}) {
        const SideReply reply{side, "it carries a route to 0.0.0.0/0"};
        EXPECT_EQ(SideReply::fromMessage(reply.toMessage()), reply);
    }
}

TEST(SideReply, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u32(1, 2);
    expected.insert_string(2, "why");
    EXPECT_EQ((SideReply{Side::outside, "why"}.toMessage()), expected);
}

TEST(SideReply, ReadsANumberThatIsNoSideAsNeither) {
    tk::message reply;
    EXPECT_EQ(SideReply::fromMessage(reply), SideReply());
    reply.insert_u32(1, 3);
    EXPECT_EQ(SideReply::fromMessage(reply), SideReply());
}

}  // namespace
}  // namespace contract
