#include "hub/trace.h"

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::TestClient;

constexpr std::uint32_t command = 77;

class HubTraceTest : public ::testing::Test {
protected:
    std::unique_ptr<TestClient> connectTracer() {
        auto client = bus.connect();
        EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubTrace)));
        return client;
    }
    /// The messages that a tracer was shown since the last call.
    std::vector<tk::message> shownTo(TestClient& tracer) {
        bus.settle();
        std::vector<tk::message> shown;
        for (const tk::message& notification : tracer.take()) {
            EXPECT_EQ(tk::kindOf(notification), tk::Kind::notification);
            EXPECT_EQ(notification.get_u32(tk::field::command), tk::command::hubTraced);
            EXPECT_EQ(notification.get_u32_array(tk::field::sender), (tk::Path{0}));
            EXPECT_EQ(notification.size_message_array(1), 1U);
            shown.push_back(notification.get_message_array(1).front());
        }
        return shown;
    }

    testing::TestHub bus;
};

TEST_F(HubTraceTest, ShowsRequestsEndsAndNotificationsAsTheyPass) {
    const auto tracer = connectTracer();
    const auto program = bus.connectProgram(80);
    EXPECT_EQ(shownTo(*tracer).size(), 2U);  // the registration and its reply
    const auto client = bus.connect();
    client->request({80}, command);
    bus.settle();
    const auto requests = program->take();
    ASSERT_EQ(requests.size(), 1U);
    program->notify({80, 0}, command);
    program->answer(requests[0], {});
    bus.settle();
    const auto ends = client->take();
    ASSERT_EQ(ends.size(), 1U);
    const auto shown = shownTo(*tracer);
    ASSERT_EQ(shown.size(), 3U);
    EXPECT_EQ(shown[0], requests[0]);
    EXPECT_EQ(tk::kindOf(shown[1]), tk::Kind::notification);
    EXPECT_EQ(shown[2], ends[0]);
}

TEST_F(HubTraceTest, ShowsTheHubsOwnErrors) {
    const auto tracer = connectTracer();
    const auto client = bus.connect();
    const tk::message end = bus.ask(*client, {33}, command);
    const auto shown = shownTo(*tracer);
    ASSERT_EQ(shown.size(), 2U);
    EXPECT_EQ(tk::kindOf(shown[0]), tk::Kind::request);
    EXPECT_EQ(shown[1], end);
    EXPECT_EQ(shown[1].get_u32_array(tk::field::sender), (tk::Path{33}));
}

TEST_F(HubTraceTest, NeverShowsTheTraceItself) {
    const auto first = connectTracer();
    const auto second = connectTracer();
    EXPECT_EQ(shownTo(*first).size(), 2U);  // the second one's beginning
    EXPECT_TRUE(shownTo(*second).empty());
    const auto client = bus.connect();
    bus.ask(*client, {33}, command);
    EXPECT_EQ(shownTo(*first).size(), 2U);
    EXPECT_EQ(shownTo(*second).size(), 2U);
}

TEST_F(HubTraceTest, AMessageThatIsTooDeepIsShownByItsRoutingFields) {
    tk::message deep;
    for (int i = 1; i < 16; ++i) {
        tk::message outer;
        outer.insert_message_array(1, {deep});
        deep = outer;
    }
    tk::stamp(deep, {80}, 4, tk::Kind::request, command);
    tk::message out;
    ASSERT_TRUE(tk::message::parse(deep.serialise(), out));
    const tk::message shown = Trace::wrap(deep);
    ASSERT_TRUE(tk::message::parse(shown.serialise(), out));
    tk::message expected;
    tk::stamp(expected, {80}, 4, tk::Kind::request, command);
    EXPECT_EQ(shown.get_message_array(1).front(), expected);
}

}  // namespace
}  // namespace hub
