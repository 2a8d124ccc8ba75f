#include "tk/bus.h"

#include <gtest/gtest.h>

namespace tk {
namespace {

message own() {
    message content;
    content.insert_u32(7, 70);
    content.insert_u32_array(field::destination, {20, 5});
    content.insert_bool(8, true);
    return content;
}

/// What own() becomes as a request numbered 17 of {80, 0}.
message stampedRequest() {
    message expected = own();
    expected.insert_u32_array(0xFF0002, {80, 0});
    expected.insert_u32(0xFF0003, 17);
    expected.insert_u32(0xFF0005, 1);
    expected.insert_u32(0xFF0007, 0xFE0005);
    return expected;
}

message stamped(message content) {
    stamp(content, {80, 0}, 17, Kind::request, 0xFE0005);
    return content;
}

TEST(Stamp, AppendsTheRoutingFieldsAfterTheMessagesOwn) {
    EXPECT_EQ(stamped(own()), stampedRequest());
}

TEST(Stamp, MovesRoutingFieldsThatWereThereAfterTheMessagesOwn) {
    message content;
    content.insert_u32(field::command, 0xFE0004);
    content.insert_u32(field::number, 3);
    for (const message::Field& field : own().fields()) content.insert(field);
    EXPECT_EQ(stamped(content), stampedRequest());
    EXPECT_EQ(stamped(stampedRequest()), stampedRequest());
}

TEST(Stamp, NotificationsHaveNoNumber) {
    message content = own();
    content.insert_u32(field::number, 3);  // of the request that it was made from
    stamp(content, {20, 0}, 0, Kind::notification, 0x10004);
    message expected = own();
    expected.insert_u32_array(0xFF0002, {20, 0});
    expected.insert_u32(0xFF0005, 4);
    expected.insert_u32(0xFF0007, 0x10004);
    EXPECT_EQ(content, expected);
}

TEST(KindOf, ReadsTheFourKindsAndTakesEverythingElseForARequest) {
    message content;
    EXPECT_EQ(kindOf(content), Kind::request);
    const Kind expected[] = {Kind::request, Kind::request,      Kind::reply,
                             Kind::error,   Kind::notification, Kind::request};
    for (std::uint32_t kind = 0; kind < 6; ++kind) {
        content.insert_u32(field::kind, kind);
        EXPECT_EQ(kindOf(content), expected[kind]) << kind;
    }
}

TEST(EndOf, ReplyGoesBackToTheRequesterUnderTheRequestsNumber) {
    message answer;
    answer.insert_string(1, "identity");
    message expected = answer;
    expected.insert_u32_array(0xFF0001, {80, 0});
    expected.insert_u32_array(0xFF0002, {20, 5});
    expected.insert_u32(0xFF0003, 17);
    expected.insert_u32(0xFF0005, 2);
    expected.insert_u32(0xFF0007, 0xFE0005);
    EXPECT_EQ(endOf(stampedRequest(), answer), expected);
}

TEST(EndOf, ErrorIsOfKindError) {
    message expected = errorMsg(error::refused, "no");
    expected.insert_u32_array(0xFF0001, {80, 0});
    expected.insert_u32_array(0xFF0002, {20, 5});
    expected.insert_u32(0xFF0003, 17);
    expected.insert_u32(0xFF0005, 3);
    expected.insert_u32(0xFF0007, 0xFE0005);
    EXPECT_EQ(endOf(stampedRequest(), errorMsg(error::refused, "no")), expected);
}

TEST(WithoutRouting, LeavesTheMessagesOwnFieldsInOrder) {
    message expected;
    expected.insert_u32(7, 70);
    expected.insert_bool(8, true);
    EXPECT_EQ(withoutRouting(stampedRequest()), expected);
}

TEST(NextNumber, GoesUpByOneAndNeverTo0) {
    EXPECT_EQ(nextNumber(0), 1U);
    EXPECT_EQ(nextNumber(1), 2U);
    EXPECT_EQ(nextNumber(0xFFFFFFFE), 0xFFFFFFFF);
    EXPECT_EQ(nextNumber(0xFFFFFFFF), 1U);
}

}  // namespace
}  // namespace tk
