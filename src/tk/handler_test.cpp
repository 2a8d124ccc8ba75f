#include "tk/handler.h"

#include <gtest/gtest.h>

#include "tk/testing/scriptedbus.h"

namespace tk {
namespace {

constexpr std::uint32_t statusChanged = 0xFE000B;

/// Notes which operation each command reached.
class Noting final : public Handler {
public:
    message cmdGetPolicies(const message&) override { return note("cmdGetPolicies"); }
    message cmdGet(const message&) override { return note("cmdGet"); }
    message cmdSet(const message&) override { return note("cmdSet"); }
    message cmdReset(const message&) override { return note("cmdReset"); }
    message cmdGetObj(const message&) override { return note("cmdGetObj"); }
    message cmdSetObj(const message&) override { return note("cmdSetObj"); }
    message cmdGetAll(const message&) override { return note("cmdGetAll"); }
    message cmdAddObj(const message&) override { return note("cmdAddObj"); }
    message cmdRemoveObj(const message&) override { return note("cmdRemoveObj"); }
    message cmdMoveObj(const message&) override { return note("cmdMoveObj"); }
    message cmdGetCount(const message&) override { return note("cmdGetCount"); }
    message cmdShutdown(const message&) override { return note("cmdShutdown"); }
    message handleReply(const message&) override { return note("handleReply"); }
    message cmdUnknown(const message&, std::uint32_t command) override {
        return note("cmdUnknown " + std::to_string(command));
    }

    std::string reached;

private:
    message note(const std::string& operation) {
        reached += operation + ";";
        message reply;
        reply.insert_string(1, operation);
        return reply;
    }
};

message requestOf(std::uint32_t command, Kind kind = Kind::request) {
    message request;
    stamp(request, {1000}, 1, kind, command);
    return request;
}

struct Operation {
    std::uint32_t command;
    const char* name;
};

constexpr Operation operations[] = {
    {0xFE0001, "cmdGetPolicies"}, {0xFE0002, "cmdGetObj"}, {0xFE0003, "cmdSetObj"},
    {0xFE0004, "cmdGetAll"},      {0xFE0005, "cmdAddObj"}, {0xFE0006, "cmdRemoveObj"},
    {0xFE0007, "cmdMoveObj"},     {0xFE0008, "cmdReset"},  {0xFE0009, "cmdShutdown"},
    {0xFE000D, "cmdGet"},         {0xFE000E, "cmdSet"},    {0xFE000F, "cmdGetCount"},
};

class HandlerCommand : public ::testing::TestWithParam<Operation> {};

TEST_P(HandlerCommand, ReachesItsOperationWhoseAnswerIsTheReply) {
    Noting handler;
    EXPECT_EQ(handler.handle(requestOf(GetParam().command)).get_string(1), GetParam().name);
    EXPECT_EQ(handler.reached, std::string(GetParam().name) + ";");
}

TEST_P(HandlerCommand, IsNoSuchCommandByDefault) {
    Handler handler;
    const message end = handler.handle(requestOf(GetParam().command));
    EXPECT_EQ(end, errorMsg(0xFE0002, "no such command"));
}

INSTANTIATE_TEST_SUITE_P(All, HandlerCommand, ::testing::ValuesIn(operations),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Handler, EveryOtherCommandIsUnknown) {
    Noting handler;
    for (const std::uint32_t command :
         {0U, 1U, 0x10004U, 0xFE0000U, 0xFE000AU, 0xFE000CU, 0xFE0010U, 0xFFFFFFFFU}) {
        handler.reached.clear();
        (void)handler.handle(requestOf(command));
        EXPECT_EQ(handler.reached, "cmdUnknown " + std::to_string(command) + ";");
    }
    EXPECT_EQ(Handler().handle(requestOf(1)), errorMsg(0xFE0002, "no such command"));
}

TEST(Handler, EveryNotificationArrivesAtUnknown) {
    Noting handler;
    (void)handler.handle(requestOf(statusChanged, Kind::notification));
    (void)handler.handle(requestOf(command::get, Kind::notification));
    EXPECT_EQ(handler.reached, "cmdUnknown 16646155;cmdUnknown 16646157;");
}

TEST(Handler, EndsOfRequestsArriveAtHandleReply) {
    Noting handler;
    (void)handler.handle(requestOf(command::get, Kind::reply));
    (void)handler.handle(requestOf(command::get, Kind::error));
    EXPECT_EQ(handler.reached, "handleReply;handleReply;");
}

TEST(Handler, DefaultsOfTheOtherOperationsAcceptAndAnObjectIsUnknown) {
    Handler handler;
    EXPECT_TRUE(handler.loadPermData().empty());
    EXPECT_TRUE(handler.savePermData().empty());
    EXPECT_TRUE(handler.shouldNotify(1).empty());
    EXPECT_TRUE(handler.checkPolicy(requestOf(command::set)).empty());
    EXPECT_TRUE(handler.subscribed({}).empty());
    EXPECT_TRUE(handler.unsubscribed({}).empty());
    EXPECT_TRUE(handler.cmdDisconnected({1000}).empty());
    EXPECT_TRUE(handler.notifiesSent().empty());
    EXPECT_EQ(handler.getObject(1), errorMsg(0xFE0004, "no such object"));
    EXPECT_TRUE(isError(handler.getObjectCount()));
    EXPECT_EQ(handler.handleBrkpath({}), errorMsg(0xFE000C, "no such handler"));
}

class HandlerOnBus : public ::testing::Test {
protected:
    HandlerOnBus() { handler.attach(bus, {80, 0}); }

    tk::testing::ScriptedBus bus;
    Handler handler;
};

TEST_F(HandlerOnBus, ExchangesFromItsOwnPath) {
    message reply;
    reply.insert_string(1, "identity");
    bus.answer({65}, command::get, reply);
    message request;
    request.insert_u32_array(field::destination, {65});
    EXPECT_EQ(handler.exchangeCmd(request, 0xFE000D, 6000), reply);
    ASSERT_EQ(bus.requests.size(), 1U);
    EXPECT_EQ(bus.requests[0].content, request);
    EXPECT_EQ(bus.requests[0].from, (Path{80, 0}));
    EXPECT_EQ(bus.requests[0].command, 0xFE000DU);
    EXPECT_EQ(bus.requests[0].timeout, 6000U);
}

message subscriptionTo(const Path& path, std::uint32_t command) {
    message expected;
    expected.insert_u32_array(1, path);
    expected.insert_u32(2, command);
    expected.insert_message_array(3, {message()});
    expected.insert_u32_array(0xFF0001, {0});
    return expected;
}

TEST_F(HandlerOnBus, SubscribesAtTheHub) {
    handler.subscribe({20, 0}, statusChanged, {});
    ASSERT_EQ(bus.requests.size(), 1U);
    EXPECT_EQ(bus.requests[0].command, 2U);
    EXPECT_EQ(bus.requests[0].content, subscriptionTo({20, 0}, statusChanged));
    EXPECT_TRUE(handler.isSubscribed({20, 0}, statusChanged));
    EXPECT_FALSE(handler.isSubscribed({20, 1}, statusChanged));
    EXPECT_FALSE(handler.isSubscribed({20, 0}, 0x10004));
}

TEST_F(HandlerOnBus, UnsubscribesAtTheHub) {
    handler.subscribe({20, 0}, statusChanged, {});
    handler.subscribe({20, 0}, statusChanged, {});
    handler.unsubscribe({20, 0}, statusChanged, {});
    ASSERT_EQ(bus.requests.size(), 3U);
    EXPECT_EQ(bus.requests[2].command, 3U);
    EXPECT_EQ(bus.requests[2].content, subscriptionTo({20, 0}, statusChanged));
    EXPECT_FALSE(handler.isSubscribed({20, 0}, statusChanged));
}

TEST_F(HandlerOnBus, HandsItsFilterToTheHub) {
    message filter;
    filter.insert_u32(9, 1);
    handler.subscribe({20, 0}, statusChanged, filter);
    EXPECT_EQ(bus.requests[0].content.get_message_array(3), std::vector<message>{filter});
}

TEST_F(HandlerOnBus, TellsAChangeAsOneRecordWithTheIdInFront) {
    message data;
    data.insert_bool(1, true);
    data.insert_string(2, "text");
    handler.notifyChange(0xFFFFFFFF, data);
    message record;
    record.insert_u32(0xFE0001, 0xFFFFFFFF);
    record.insert_bool(1, true);
    record.insert_string(2, "text");
    message expected;
    expected.insert_message_array(0xFE0002, {record});
    expected.insert_u32_array(0xFF0002, {80, 0});
    expected.insert_u32(0xFF0005, 4);
    expected.insert_u32(0xFF0007, 0xFE000B);
    EXPECT_EQ(bus.posted, std::vector<message>{expected});
    EXPECT_TRUE(bus.requests.empty());
}

TEST_F(HandlerOnBus, TellsAChangeWithoutTheRoutingOfTheRequestThatMadeIt) {
    message request;
    request.insert_u32(0xFE0001, 4);
    request.insert_bool(1, true);
    request.insert_u32_array(field::destination, {80, 0});
    stamp(request, {1000}, 3, Kind::request, command::set);
    handler.notifyChange(5, request);
    message record;
    record.insert_u32(0xFE0001, 5);
    record.insert_bool(1, true);
    ASSERT_EQ(bus.posted.size(), 1U);
    EXPECT_EQ(bus.posted[0].get_message_array(0xFE0002), std::vector<message>{record});
}

TEST_F(HandlerOnBus, RecordsAnUndoAtTheHistory) {
    const message request = requestOf(command::set);
    message inverse;
    inverse.insert_u32(0xFF0007, 0xFE000E);
    inverse.insert_bool(1, false);
    handler.sendUndo(request, inverse, "upnp config changed");
    message expected;
    expected.insert_message_array(1, {request});
    expected.insert_message_array(2, {inverse});
    expected.insert_string(3, "upnp config changed");
    expected.insert_u32_array(0xFF0001, {24});
    ASSERT_EQ(bus.requests.size(), 1U);
    EXPECT_EQ(bus.requests[0].content, expected);
    EXPECT_EQ(bus.requests[0].command, 0xFE0005U);
    EXPECT_EQ(bus.requests[0].from, (Path{80, 0}));
}

TEST_F(HandlerOnBus, OffTheBusEveryExchangeFailsAndNothingIsSent) {
    handler.detach();
    message request;
    std::uint32_t code = 0;
    ASSERT_TRUE(isError(handler.exchangeCmd(request, command::get, 6000), &code));
    EXPECT_EQ(code, error::disconnected);
    handler.notifyChange(1, {});
    handler.subscribe({20, 0}, statusChanged, {});
    handler.sendUndo({}, {}, "");
    EXPECT_TRUE(bus.requests.empty());
    EXPECT_TRUE(bus.posted.empty());
}

}  // namespace
}  // namespace tk
