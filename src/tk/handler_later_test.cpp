// Requests that a handler answers after the operation that received them.

#include <optional>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace tk {
namespace {

/// Keeps the requests of `get`, and answers those of `set` at once.
class Keeping final : public Handler {
public:
    message cmdGet(const message& request) override {
        kept = request;
        return answerLater();
    }
    message cmdSet(const message&) override { return {}; }

    std::optional<message> kept;
};

class LaterAnswer : public ::testing::Test {
protected:
    LaterAnswer() { loop.looper.addHandler(3, &handler); }

    void request(std::uint32_t number, std::uint32_t command, const Path& to = {testing::ownProgram, 3}) {
        message request;
        request.insert_u32_array(field::destination, to);
        stamp(request, {1000}, number, Kind::request, command);
        loop.looper.dispatch(request);
    }
    static message endFor(std::uint32_t number, Kind kind, message content, const Path& from) {
        content.insert_u32_array(field::destination, {1000});
        stamp(content, from, number, kind, command::get);
        return content;
    }

    testing::TestLoop loop;
    Keeping handler;
    const Path path{testing::ownProgram, 3};
};

TEST_F(LaterAnswer, NothingIsSentUntilTheHandlerAnswers) {
    request(9, command::get);
    EXPECT_TRUE(loop.bus.posted.empty());
    message content;
    content.insert_string(1, "late");
    handler.sendAnswer(*handler.kept, content);
    ASSERT_EQ(loop.bus.posted.size(), 1u);
    EXPECT_EQ(loop.bus.posted[0], endFor(9, Kind::reply, content, path));
}

TEST_F(LaterAnswer, AnErrorEndsTheRequestAsOne) {
    request(9, command::get);
    const message refusal = errorMsg(error::failed, "no");
    handler.sendAnswer(*handler.kept, refusal);
    ASSERT_EQ(loop.bus.posted.size(), 1u);
    EXPECT_EQ(loop.bus.posted[0], endFor(9, Kind::error, refusal, path));
}

TEST_F(LaterAnswer, ComesFromTheWholePathWhenTheRequestLeftTheNumberOut) {
    loop.looper.removeHandler(3);
    loop.looper.addHandler(0, &handler);
    request(9, command::get, {testing::ownProgram});
    handler.sendAnswer(*handler.kept, {});
    ASSERT_EQ(loop.bus.posted.size(), 1u);
    EXPECT_EQ(loop.bus.posted[0], endFor(9, Kind::reply, {}, {testing::ownProgram, 0}));
}

TEST_F(LaterAnswer, OtherRequestsAreServedMeanwhile) {
    request(9, command::get);
    request(10, command::set);
    ASSERT_EQ(loop.bus.posted.size(), 1u);
    EXPECT_EQ(loop.bus.posted[0].get_u32(field::number), 10u);
    handler.sendAnswer(*handler.kept, {});
    ASSERT_EQ(loop.bus.posted.size(), 2u);
    EXPECT_EQ(loop.bus.posted[1].get_u32(field::number), 9u);
}

TEST_F(LaterAnswer, IsDroppedOffTheBus) {
    request(9, command::get);
    handler.detach();
    handler.sendAnswer(*handler.kept, {});
    EXPECT_TRUE(loop.bus.posted.empty());
}

}  // namespace
}  // namespace tk
