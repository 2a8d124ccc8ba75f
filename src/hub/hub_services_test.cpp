// The handlers of the hub's own process: how they serve, what they may ask, and who may make them change
// something.

#include "hub/hub.h"

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::codeOf;
using testing::TestClient;
using testing::text;

constexpr std::uint32_t command = 77;

/// A handler of the hub's own process that records what it is told.
class LocalHandler final : public tk::Handler {
public:
    tk::message cmdUnknown(const tk::message& received, std::uint32_t) override {
        served.push_back(received);
        if (announces) notifyChange(5, text("changed"));
        return text("served");
    }
    tk::message cmdDisconnected(const tk::Path& client) override {
        gone.push_back(client);
        return {};
    }
    bool announces = false;
    std::vector<tk::message> served;
    std::vector<tk::Path> gone;
};

class HubServicesTest : public ::testing::Test {
protected:
    void subscribe(TestClient& client, const tk::Path& path, std::uint32_t wanted) {
        tk::message content = testing::subscription(path, wanted);
        EXPECT_FALSE(tk::isError(bus.ask(client, {0}, tk::command::hubSubscribe, content)));
    }

    testing::TestHub bus;
};

TEST_F(HubServicesTest, ChangesAreHeardWhileSomebodySubscribesOrTraces) {
    LocalHandler handler;
    EXPECT_FALSE(handler.areChangesHeard());
    bus.hub.addService(handler, {20, 0});
    EXPECT_FALSE(handler.areChangesHeard());
    const auto client = bus.connect();
    subscribe(*client, {20, 1}, tk::command::objectsChanged);
    EXPECT_FALSE(handler.areChangesHeard());
    subscribe(*client, {20, 0}, tk::command::objectsChanged);
    EXPECT_TRUE(handler.areChangesHeard());
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubUnsubscribe,
                                     testing::subscription({20, 0}, tk::command::objectsChanged))));
    EXPECT_FALSE(handler.areChangesHeard());
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubTrace)));
    EXPECT_TRUE(handler.areChangesHeard());
}

TEST_F(HubServicesTest, LocalServicesAnswerUnderTheirPaths) {
    LocalHandler interfaces;
    LocalHandler history;
    bus.hub.addService(interfaces, {20, 0});
    bus.hub.addService(history, {24});
    const auto client = bus.connect();
    EXPECT_EQ(bus.ask(*client, {20, 0}, command).get_string(1), "served");
    EXPECT_EQ(bus.ask(*client, {20}, command).get_string(1), "served");
    EXPECT_EQ(bus.ask(*client, {24}, command).get_string(1), "served");
    EXPECT_EQ(bus.ask(*client, {24, 0}, command).get_string(1), "served");
    EXPECT_EQ(codeOf(bus.ask(*client, {20, 4}, command)), tk::error::unreachable);
    EXPECT_EQ(codeOf(bus.ask(*client, {20, 0, 1}, command)), tk::error::unreachable);
    EXPECT_EQ(interfaces.served.size(), 2U);
    EXPECT_EQ(history.served.size(), 2U);
    bus.hub.close();
}

TEST_F(HubServicesTest, LocalServicesHearOfAnEndUnderBothNumbers) {
    LocalHandler handler;
    bus.hub.addService(handler, {20, 5});
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    program->close();
    client->close();
    bus.settle();
    EXPECT_EQ(handler.gone, (std::vector<tk::Path>{{1000}, {80}, {1001}}));
    bus.hub.close();
}

TEST_F(HubServicesTest, LocalNotificationsComeBeforeTheReply) {
    LocalHandler handler;
    handler.announces = true;
    bus.hub.addService(handler, {20, 0});
    const auto client = bus.connect();
    subscribe(*client, {20, 0}, tk::command::objectsChanged);
    client->request({20, 0}, command);
    const auto arrived = bus.arrivedAt(*client);
    ASSERT_EQ(arrived.size(), 2U);
    EXPECT_EQ(tk::kindOf(arrived[0]), tk::Kind::notification);
    EXPECT_EQ(arrived[0].get_u32_array(tk::field::sender), (tk::Path{20, 0}));
    EXPECT_EQ(tk::kindOf(arrived[1]), tk::Kind::reply);
    bus.hub.close();
}

TEST_F(HubServicesTest, LocalHandlersNeverWaitForAnotherProgram) {
    LocalHandler asker;
    LocalHandler other;
    bus.hub.addService(asker, {20, 0});
    bus.hub.addService(other, {24});
    const auto program = bus.connectProgram(80);
    tk::message request;
    request.insert_u32_array(tk::field::destination, {80});
    EXPECT_EQ(codeOf(asker.exchangeCmd(request, command, 1000)), tk::error::refused);
    request.insert_u32_array(tk::field::destination, {24});
    EXPECT_EQ(asker.exchangeCmd(request, command, 1000).get_string(1), "served");
    EXPECT_EQ(other.served.front().get_u32_array(tk::field::sender), (tk::Path{20, 0}));
    EXPECT_TRUE(bus.arrivedAt(*program).empty());
    bus.hub.close();
}

TEST_F(HubServicesTest, UsersDoWhatTheTableSaysAndNoMore) {
    constexpr uid_t user = 900;
    constexpr uid_t other = 901;
    LocalHandler handler;
    bus.hub.addService(handler, {20, 5});
    bus.hub.setAccess(Access({{user, {80}, {{20, 5}}}}));
    const auto daemon = bus.connect(user);
    const auto stranger = bus.connect(other);
    tk::message program;
    program.insert_u32(1, 80);
    EXPECT_EQ(codeOf(bus.ask(*stranger, {0}, tk::command::hubRegister, program)), tk::error::notAllowed);
    EXPECT_FALSE(tk::isError(bus.ask(*daemon, {0}, tk::command::hubRegister, program)));
    const tk::message refused = bus.ask(*stranger, {20, 5}, command);
    EXPECT_EQ(codeOf(refused), tk::error::notAllowed);
    EXPECT_EQ(tk::getError(refused), "user 901 may not change {20,5}: it needs writes = [\"20,5\"]");
    EXPECT_TRUE(handler.served.empty());
    EXPECT_FALSE(tk::isError(bus.ask(*daemon, {20, 5}, command)));
    EXPECT_EQ(codeOf(bus.ask(*stranger, {0}, tk::command::hubTrace)), tk::error::notAllowed);
    stranger->request({80}, tk::command::set);
    EXPECT_EQ(codeOf(bus.arrivedAt(*stranger).at(0)), tk::error::notAllowed);
    EXPECT_TRUE(bus.arrivedAt(*daemon).empty());
    bus.hub.close();
}

TEST_F(HubServicesTest, WhoeverIsNoProgramTellsAndAnswersNothing) {
    constexpr uid_t user = 900;
    bus.hub.setAccess(Access({UserRights{user, {80}}}));
    const auto daemon = bus.connectProgram(80, user);
    const auto client = bus.connect(user);
    const auto root = bus.connect();
    subscribe(*root, {80, 0}, command);
    subscribe(*root, {1001}, command);
    client->notify({80, 0}, command);
    client->notify({1001}, command);
    EXPECT_TRUE(bus.arrivedAt(*root).empty());
    daemon->notify({80, 0}, command);
    EXPECT_EQ(bus.arrivedAt(*root).size(), 1U);
    root->request({80}, command);
    client->answer(bus.arrivedAt(*daemon).at(0), text("forged"));
    EXPECT_TRUE(bus.arrivedAt(*root).empty());
}

/// A handler of the hub's own process that asks a program, and answers once the program has.
class AskingHandler final : public tk::Handler {
public:
    tk::message cmdUnknown(const tk::message& received, std::uint32_t) override {
        waiting = received;
        tk::message onward = text("onward");
        onward.insert_u32_array(tk::field::destination, {80, 3});
        tk::stamp(onward, path(), 0, tk::Kind::request, command + 1);
        (void)sendMessage(std::move(onward));
        return answerLater();
    }
    tk::message handleReply(const tk::message& end) override {
        std::uint32_t code = 0;
        sendAnswer(waiting, tk::isError(end, &code) ? tk::errorMsg(code, "passed on") : text("answered"));
        return {};
    }
    tk::message waiting;
};

class AskingHandlerTest : public HubServicesTest {
protected:
    AskingHandlerTest() { bus.hub.addService(handler, {24}); }
    ~AskingHandlerTest() override { bus.hub.close(); }
    AskingHandler handler;
};

TEST_F(AskingHandlerTest, AnswersOnceTheProgramHas) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    client->request({24}, command);
    const tk::message asked = bus.arrivedAt(*program).at(0);
    EXPECT_EQ(asked.get_u32_array(tk::field::destination), (tk::Path{80, 3}));
    EXPECT_EQ(asked.get_u32_array(tk::field::sender), tk::Path{24});
    EXPECT_EQ(asked.get_u32(tk::field::command), command + 1);
    EXPECT_TRUE(client->take().empty());
    program->answer(asked, {});
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(ends.front().get_string(1), "answered");
}

TEST_F(AskingHandlerTest, HearsOfAnAbsentProgramAtOnce) {
    const auto client = bus.connect();
    EXPECT_EQ(codeOf(bus.ask(*client, {24}, command)), tk::error::unreachable);
}

TEST_F(AskingHandlerTest, HearsOfTheProgramsEnd) {
    auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    client->request({24}, command);
    bus.settle();
    program.reset();
    const auto ends = bus.arrivedAt(*client);
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(codeOf(ends.front()), tk::error::disconnected);
}

TEST_F(AskingHandlerTest, HearsOfAnEndThatWasAddressedToItAlone) {
    LocalHandler other;
    bus.hub.addService(other, {20, 5});
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    client->request({24}, command);
    const tk::message asked = bus.arrivedAt(*program).at(0);
    tk::message elsewhere = asked;
    elsewhere.insert_u32_array(tk::field::sender, {20, 5});
    program->answer(elsewhere, {});
    EXPECT_TRUE(bus.arrivedAt(*client).empty()) << "it counts for nobody";
    program->answer(asked, {});
    EXPECT_EQ(bus.arrivedAt(*client).at(0).get_string(1), "answered");
}

TEST_F(AskingHandlerTest, GetsATimeOutFromAProgramThatAnsweredSomebodyElse) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect();
    client->request({24}, command);
    tk::message astray = bus.arrivedAt(*program).at(0);
    astray.insert_u32_array(tk::field::sender, {20, 5});
    program->answer(astray, {});
    bus.settle();
    bus.advance(Hub::expiryTicks);
    bus.advance(Hub::expiryTicks);
    EXPECT_EQ(codeOf(bus.arrivedAt(*client).at(0)), tk::error::timedOut);
}

}  // namespace
}  // namespace hub
