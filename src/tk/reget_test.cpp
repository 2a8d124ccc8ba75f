#include "tk/reget.h"

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace tk {
namespace {

message object(std::uint32_t id) {
    message record;
    record.insert_u32(field::objectId, id);
    return record;
}

message query() {
    message request;
    request.insert_u32_array(field::destination, {20, 1});
    request.insert_u32(field::command, command::getAll);
    return request;
}

class RegetTest : public ::testing::Test {
protected:
    /// Serves `count` objects from id 1 up, `pageSize` at a time.
    void serve(std::uint32_t count, std::uint32_t pageSize) {
        loop.bus.answer({20, 1}, command::getAll, [=](const message& request) {
            message reply;
            std::vector<message>& page = reply.get_message_array_ref(field::objects);
            std::uint32_t id = request.get_u32(field::next, 1);
            for (; id <= count && page.size() < pageSize; ++id) page.push_back(object(id));
            if (id <= count) reply.insert_u32(field::next, id);
            return reply;
        });
    }
    static std::vector<std::uint32_t> idsOf(Reget& walk) {
        std::vector<std::uint32_t> ids;
        while (!walk.isEmpty() && ids.size() < 100) ids.push_back(walk.pop().get_u32(field::objectId));
        return ids;
    }

    tk::testing::TestLoop loop;
};

using FullRegetTest = RegetTest;

TEST_F(RegetTest, WalksTheObjectsOfOneReply) {
    serve(5, 2);
    Reget walk;
    walk.setBase(query());
    EXPECT_EQ(idsOf(walk), (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(loop.bus.requests.size(), 1U);
}

TEST_F(RegetTest, PopsAnEmptyMessageWhenNoneIsLeft) {
    Reget walk;
    EXPECT_TRUE(walk.isEmpty());
    EXPECT_TRUE(walk.pop().empty());
}

TEST_F(FullRegetTest, SendsTheQueryAsItIsFromTheLoopsPath) {
    serve(1, 2);
    FullReget walk;
    walk.setBase(query());
    ASSERT_EQ(loop.bus.requests.size(), 1U);
    EXPECT_EQ(loop.bus.requests[0].content, query());
    EXPECT_EQ(loop.bus.requests[0].command, 0xFE0004U);
    EXPECT_EQ(loop.bus.requests[0].from, (Path{80, 0}));
    EXPECT_EQ(loop.bus.requests[0].timeout, 6000U);
}

TEST_F(FullRegetTest, AsksForEachFurtherPageWhenTheOneBeforeIsUsedUp) {
    serve(5, 2);
    FullReget walk;
    walk.setBase(query());
    EXPECT_EQ(loop.bus.requests.size(), 1U);
    EXPECT_EQ(idsOf(walk), (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
    ASSERT_EQ(loop.bus.requests.size(), 3U);
    message second = query();
    second.insert_u32(0xFE0003, 3);
    EXPECT_EQ(loop.bus.requests[1].content, second);
    second.insert_u32(0xFE0003, 5);
    EXPECT_EQ(loop.bus.requests[2].content, second);
    EXPECT_FALSE(walk.failed());
}

TEST_F(FullRegetTest, UsesTheTimeOutThatWasSet) {
    serve(3, 2);
    FullReget walk;
    walk.timeout = 3000;
    walk.setBase(query());
    (void)idsOf(walk);
    ASSERT_EQ(loop.bus.requests.size(), 2U);
    EXPECT_EQ(loop.bus.requests[0].timeout, 3000U);
    EXPECT_EQ(loop.bus.requests[1].timeout, 3000U);
}

TEST_F(FullRegetTest, FailedQueryYieldsNothingAndTells) {
    loop.bus.answer({20, 1}, command::getAll, errorMsg(error::timedOut, "timed out"));
    FullReget walk;
    walk.setBase(query());
    EXPECT_TRUE(walk.failed());
    EXPECT_TRUE(walk.isEmpty());
    EXPECT_EQ(loop.bus.requests.size(), 1U);
}

TEST_F(FullRegetTest, WalkThatFailsHalfWayKeepsWhatItHasAndTells) {
    loop.bus.answer({20, 1}, command::getAll, [](const message& request) {
        if (request.has(field::next)) return errorMsg(error::disconnected, "gone");
        message reply;
        reply.insert_message_array(field::objects, {object(1)});
        reply.insert_u32(field::next, 2);
        return reply;
    });
    FullReget walk;
    walk.setBase(query());
    EXPECT_EQ(idsOf(walk), std::vector<std::uint32_t>{1});
    EXPECT_TRUE(walk.failed());
    EXPECT_EQ(loop.bus.requests.size(), 2U);
}

TEST_F(FullRegetTest, EndsWhenAPageLeadsToItself) {
    loop.bus.answer({20, 1}, command::getAll, [this](const message&) {
        message reply;
        if (loop.bus.requests.size() < 50) reply.insert_u32(field::next, 7);
        return reply;
    });
    FullReget walk;
    walk.setBase(query());
    EXPECT_TRUE(walk.isEmpty());
    EXPECT_TRUE(walk.failed());
    EXPECT_EQ(loop.bus.requests.size(), 2U);
}

TEST_F(FullRegetTest, EndsWhenPagesLeadToOneAnother) {
    loop.bus.answer({20, 1}, command::getAll, [](const message& request) {
        message reply;
        reply.insert_u32(field::next, request.get_u32(field::next) == 7 ? 8 : 7);
        return reply;
    });
    FullReget walk;
    walk.setBase(query());
    EXPECT_TRUE(walk.isEmpty());
    EXPECT_TRUE(walk.failed());
    EXPECT_EQ(loop.bus.requests.size(), 3U);
}

TEST_F(FullRegetTest, NewBaseStartsAnew) {
    serve(5, 2);
    FullReget walk;
    walk.setBase(query());
    (void)walk.pop();
    walk.setBase(query());
    EXPECT_EQ(idsOf(walk), (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
}

}  // namespace
}  // namespace tk
