#include "router/history.h"

#include <gtest/gtest.h>

#include "contract/history.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace router {
namespace {

tk::message recordOf(const std::string& description) {
    tk::message request;
    request.insert_message_array(1, {tk::message()});
    request.insert_message_array(2, {tk::message()});
    request.insert_string(3, description);
    request.insert_u32_array(tk::field::sender, {80, 0});
    return request;
}

TEST(History, KeepsRecordsWithTimeAndProgram) {
    History history([] { return std::uint64_t{1234}; });
    const tk::message reply = history.cmdAddObj(recordOf("upnp config changed"));
    EXPECT_EQ(reply.get_u32(tk::field::objectId), 1U);
    const tk::message list = history.cmdGetAll({});
    ASSERT_EQ(list.size_message_array(tk::field::objects), 1U);
    const tk::message& record = list.get_message_array(tk::field::objects).front();
    EXPECT_EQ(record.get_u32(tk::field::objectId), 1U);
    EXPECT_EQ(record.get_string(3), "upnp config changed");
    EXPECT_EQ(record.get_u32(4), 80U);
    EXPECT_EQ(record.get_u64(5), 1234U);
}

TEST(History, KeepsTheLastHundred) {
    History history([] { return std::uint64_t{0}; });
    for (int i = 0; i < 103; ++i) EXPECT_FALSE(tk::isError(history.cmdAddObj(recordOf(std::to_string(i)))));
    EXPECT_EQ(history.cmdGetCount({}).get_u32(tk::field::count), 100U);
    EXPECT_EQ(
        history.cmdGetAll({}).get_message_array(tk::field::objects).front().get_u32(tk::field::objectId), 4U);
}

TEST(History, KeepsTheLastMebibyte) {
    History history([] { return std::uint64_t{0}; });
    const std::string text(History::byteLimit / 4, 'x');  // three fit, with the rest of their records
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(tk::isError(history.cmdAddObj(recordOf(text))));
    EXPECT_EQ(history.cmdGetCount({}).get_u32(tk::field::count), 3U);
    EXPECT_EQ(
        history.cmdGetAll({}).get_message_array(tk::field::objects).front().get_u32(tk::field::objectId), 3U);
    EXPECT_FALSE(tk::isError(history.cmdAddObj(recordOf("small"))));
    EXPECT_EQ(history.cmdGetCount({}).get_u32(tk::field::count), 4U);
}

TEST(History, RefusesARecordThatIsTooLargeAndKeepsTheOthers) {
    History history([] { return std::uint64_t{0}; });
    EXPECT_FALSE(tk::isError(history.cmdAddObj(recordOf("small"))));
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(history.cmdAddObj(recordOf(std::string(History::byteLimit, 'x'))), &code));
    EXPECT_EQ(code, tk::error::refused);
    EXPECT_EQ(history.cmdGetCount({}).get_u32(tk::field::count), 1U);
    EXPECT_EQ(history.cmdAddObj(recordOf("next")).get_u32(tk::field::objectId), 2U);
}

TEST(History, RefusesARecordWithoutItsParts) {
    History history([] { return std::uint64_t{0}; });
    tk::message request = recordOf("x");
    request.remove(2);
    EXPECT_TRUE(tk::isError(history.cmdAddObj(request)));
    EXPECT_EQ(history.cmdGetCount({}).get_u32(tk::field::count), 0U);
}

class UndoTest : public ::testing::Test {
protected:
    UndoTest() { history.attach(bus, {24}); }
    void record(const std::string& description, std::uint32_t value, const tk::Path& from = {80, 0}) {
        tk::message inverse;
        inverse.insert_u32(tk::field::command, tk::command::set);
        inverse.insert_u32(5, value);
        tk::message request = recordOf(description);
        request.insert_message_array(2, {inverse});
        request.insert_u32_array(tk::field::sender, from);
        EXPECT_FALSE(tk::isError(history.cmdAddObj(request)));
    }
    /// Asks as client 1000; an answer goes there.
    tk::message undo() {
        bus.posted.clear();
        tk::message request;
        request.insert_u32_array(tk::field::destination, {24});
        tk::stamp(request, {1000}, 7, tk::Kind::request, contract::undoLast);
        return history.cmdUnknown(request, contract::undoLast);
    }
    tk::message posted(tk::Kind kind) {
        for (const tk::message& each : bus.posted)
            if (tk::kindOf(each) == kind) return each;
        return {};
    }
    std::uint32_t count() { return history.cmdGetCount({}).get_u32(tk::field::count); }

    tk::testing::ScriptedBus bus;
    History history{[] { return std::uint64_t{0}; }};
};

TEST_F(UndoTest, SendsTheLastInverseToWhoeverRecordedIt) {
    record("first", 1);
    record("second", 2, {80, 1});
    EXPECT_TRUE(undo().has(tk::field::later));
    const tk::message sent = posted(tk::Kind::request);
    EXPECT_EQ(sent.get_u32_array(tk::field::destination), (tk::Path{80, 1}));
    EXPECT_EQ(sent.get_u32_array(tk::field::sender), tk::Path{24});
    EXPECT_EQ(sent.get_u32(tk::field::command), tk::command::set);
    EXPECT_EQ(sent.get_u32(5), 2U);
    (void)history.handleReply({});
    const tk::message answer = posted(tk::Kind::reply);
    EXPECT_EQ(answer.get_u32_array(tk::field::destination), tk::Path{1000});
    EXPECT_EQ(answer.get_u32(tk::field::number), 7U);
    EXPECT_EQ(answer.get_string(3), "second");
    EXPECT_EQ(count(), 1U);
}

TEST_F(UndoTest, WhatTheUndoingItselfRecordsIsNotKept) {
    record("change", 1);
    (void)undo();
    record("change", 2);
    record("of another handler", 3, {80, 1});
    (void)history.handleReply({});
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(history.cmdGetAll({}).get_message_array(tk::field::objects).front().get_string(3),
              "of another handler");
}

TEST_F(UndoTest, ARecordThatIsBeingUndoneMakesNoRoomForOthers) {
    record("change", 1);
    (void)undo();
    for (int i = 0; i < 6; ++i) record(std::string(History::byteLimit / 4, 'x'), 2, {80, 1});
    EXPECT_EQ(count(), 4U);
    (void)history.handleReply({});
    EXPECT_EQ(posted(tk::Kind::reply).get_u32(tk::field::objectId), 1U);
    EXPECT_EQ(count(), 3U);
}

TEST_F(UndoTest, WhatWasUndoneMakesRoomAgain) {
    for (int i = 0; i < 3; ++i) record(std::string(History::byteLimit / 4, 'x'), 1);
    (void)undo();
    (void)history.handleReply({});
    record(std::string(History::byteLimit / 4, 'x'), 1);
    EXPECT_EQ(count(), 3U);
}

TEST_F(UndoTest, ARefusedInverseKeepsTheRecord) {
    record("change", 1);
    (void)undo();
    (void)history.handleReply(tk::errorMsg(tk::error::failed, "no"));
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(posted(tk::Kind::error), &code));
    EXPECT_EQ(code, tk::error::failed);
    EXPECT_EQ(count(), 1U);
    EXPECT_TRUE(undo().has(tk::field::later)) << "it can be tried again";
}

TEST_F(UndoTest, WhatNobodyCanUndoDoesNotStandBeforeWhatLiesBelow) {
    record("change", 1);
    record("of a handler that there is not", 2, {80, 7, 9});
    (void)undo();
    (void)history.handleReply(tk::errorMsg(tk::error::unreachable, "no such handler"));
    EXPECT_EQ(count(), 1U);
    (void)undo();
    (void)history.handleReply(tk::errorMsg(tk::error::unreachable, "nobody at this destination"));
    EXPECT_EQ(count(), 1U) << "the program may come";
    (void)undo();
    (void)history.handleReply(tk::errorMsg(tk::error::noSuchCommand, "no such command"));
    EXPECT_EQ(count(), 0U);
}

TEST_F(UndoTest, WhatAClientRecordedGoesWithIt) {
    record("of a program", 1);
    record("of a client", 2, {1001});
    (void)history.cmdDisconnected({80});
    (void)history.cmdDisconnected({1002});
    EXPECT_EQ(count(), 2U);
    (void)undo();
    (void)history.cmdDisconnected({1001});
    EXPECT_EQ(count(), 1U);
    (void)history.handleReply(tk::errorMsg(tk::error::disconnected, "gone"));
    EXPECT_EQ(count(), 1U);
}

TEST_F(UndoTest, OneUndoingAtATime) {
    EXPECT_TRUE(tk::isError(undo())) << "there is nothing to undo";
    record("change", 1);
    (void)undo();
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(undo(), &code));
    EXPECT_EQ(code, tk::error::busy);
}

}  // namespace
}  // namespace router
