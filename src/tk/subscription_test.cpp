#include "tk/subscription.h"

#include <gtest/gtest.h>

namespace tk {
namespace {

message withNumber(std::uint32_t value) {
    message made;
    made.insert_u32(1, value);
    return made;
}

TEST(Subscription, ComesBackAsItWasSent) {
    const Subscription wanted{{20, 1}, 0xFE000B, withNumber(5)};
    EXPECT_EQ(Subscription::fromMessage(wanted.toMessage()), wanted);
}

TEST(Subscription, TravelsInTheseFieldsWithAFilterThatMayBeEmpty) {
    message expected;
    expected.insert_u32_array(1, {20, 1});
    expected.insert_u32(2, 0xFE000B);
    expected.insert_message_array(3, {message()});
    EXPECT_EQ((Subscription{{20, 1}, 0xFE000B}.toMessage()), expected);
}

TEST(Subscription, NeedsAPathAndACommandButNoFilter) {
    message given;
    EXPECT_FALSE(Subscription::fromMessage(given));
    given.insert_u32(2, 0);
    EXPECT_FALSE(Subscription::fromMessage(given));
    given.insert_u32_array(1, {20});
    EXPECT_EQ(Subscription::fromMessage(given), (Subscription{{20}, 0}));
    message pathAlone;
    pathAlone.insert_u32_array(1, {20});
    EXPECT_FALSE(Subscription::fromMessage(pathAlone));
}

TEST(Subscription, FindsAFilterAmongEmptyOnes) {
    message given = Subscription{{20}, 1}.toMessage();
    given.insert_message_array(3, {message(), withNumber(5), message()});
    EXPECT_EQ(Subscription::fromMessage(given), (Subscription{{20}, 1, withNumber(5)}));
}

}  // namespace
}  // namespace tk
