#include "hub/budgets.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"

namespace hub {
namespace {

using testing::codeOf;
using testing::subscription;
using testing::TestClient;
using testing::text;

constexpr std::uint32_t command = 77;
constexpr uid_t hostile = 900, other = 901, daemon = 902;

TEST(Budgets, AreOnePerUserAndForRootOnePerConnection) {
    Budgets budgets;
    EXPECT_EQ(&budgets.of(hostile, 1000), &budgets.of(hostile, 1001));
    EXPECT_NE(&budgets.of(hostile, 1000), &budgets.of(other, 1000));
    EXPECT_NE(&budgets.of(0, 1000), &budgets.of(0, 1001));
    EXPECT_FALSE(budgets.of(hostile, 1000).hasRoomFor(Budgets::userLimit + 1));
    EXPECT_TRUE(budgets.of(0, 1000).hasRoomFor(Budgets::userLimit + 1));
}

TEST(Budgets, ThoseInUseAreNotForgotten) {
    Budgets budgets;
    tk::Budget& used = budgets.of(hostile, 1000);
    const tk::Charge charge(used, 1);
    budgets.forgetUnused();
    EXPECT_EQ(&budgets.of(hostile, 1000), &used);
    EXPECT_EQ(used.usedBytes(), 1U);
}

/// One user makes the hub keep bytes for it, while another one goes on as usual.
class BudgetTest : public ::testing::Test {
protected:
    BudgetTest() {
        bus.hub.setAccess(Access({{.uid = hostile, .writes = {{80}}, .traces = true}, {daemon, {80}}}));
        program = bus.connectProgram(80, daemon);
        bystander = bus.connect(other);
    }

    void connectHostile(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) clients.push_back(bus.connect(hostile));
    }
    std::size_t keptFor(uid_t user) { return bus.hub.budgetOf(user, 0).usedBytes(); }
    /// How many of the hostile connections are over, even if something is left to read.
    std::size_t closed() { return clients.size() + 2 - bus.hub.peerCount(); }
    /// The other user is served, and so is the program.
    void expectTheOthersGoOn() {
        const std::uint32_t number = bystander->request({80}, tk::command::get);
        tk::message request;
        for (int reads = 0; reads < 1000 && request.empty(); ++reads)
            for (const tk::message& each : bus.arrivedAt(*program))
                if (each.get_u32_array(tk::field::sender) == tk::Path{1001}) request = each;
        program->answer(request, text("served"));
        const auto ends = bus.arrivedAt(*bystander);
        ASSERT_EQ(ends.size(), 1U);
        EXPECT_EQ(ends[0].get_u32(tk::field::number), number);
        EXPECT_EQ(ends[0].get_string(1), "served");
        EXPECT_LE(keptFor(hostile), Budgets::userLimit + 70000);
    }

    tk::testing::CapturedOutput output;
    testing::TestHub bus;
    std::unique_ptr<TestClient> program;
    std::unique_ptr<TestClient> bystander;
    std::vector<std::unique_ptr<TestClient>> clients;
};

TEST_F(BudgetTest, UnfinishedFramesOnAllConnectionsOfAUser) {
    connectHostile(60);
    std::string half;
    ASSERT_TRUE(tk::appendFrame(half, text(std::string(900000, 'x'))));
    half.resize(half.size() - 1);
    for (const auto& client : clients)
        for (std::size_t at = 0; at < half.size() && !client->isClosed(); at += 60000) {
            client->sendBytes(half.substr(at, 60000));
            bus.settle();
        }
    EXPECT_GT(closed(), 0U);
    EXPECT_LT(closed(), clients.size()) << "only those that grow are";
    expectTheOthersGoOn();
    const std::string told = output.text();
    EXPECT_TRUE(told.ends_with(" left: there is no room for what it sends\n"));
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << "the rest is counted";
}

TEST_F(BudgetTest, TracersThatDoNotRead) {
    connectHostile(30);
    for (const auto& client : clients)
        EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubTrace)));
    for (int i = 0; i < 40; ++i) {
        program->notify({80, 0}, command, text(std::string(60000, 'x')));
        bus.settle();
    }
    EXPECT_GT(closed(), 0U);
    expectTheOthersGoOn();
}

TEST_F(BudgetTest, SubscribersThatDoNotRead) {
    connectHostile(30);
    for (const auto& client : clients)
        EXPECT_FALSE(
            tk::isError(bus.ask(*client, {0}, tk::command::hubSubscribe, subscription({80, 0}, command))));
    for (int i = 0; i < 40; ++i) {
        program->notify({80, 0}, command, text(std::string(60000, 'x')));
        bus.settle();
    }
    EXPECT_GT(closed(), 0U);
    expectTheOthersGoOn();
}

TEST_F(BudgetTest, SubscriptionsThemselves) {
    connectHostile(60);
    std::size_t refused = 0;
    for (const auto& client : clients)
        for (std::uint32_t i = 0; i < 1000; ++i) {
            client->request({0}, tk::command::hubSubscribe, subscription(tk::Path(16, 80), i));
            if (i % 250 == 249)
                for (const tk::message& end : bus.arrivedAt(*client)) refused += tk::isError(end);
        }
    EXPECT_GT(refused, 0U);
    EXPECT_LT(refused, 30000U);
    expectTheOthersGoOn();
}

TEST_F(BudgetTest, RepliesThatAreNotRead) {
    connectHostile(60);
    class Verbose final : public tk::Handler {
        tk::message cmdGet(const tk::message&) override { return text(std::string(60000, 'x')); }
    } handler;
    bus.hub.addService(handler, {20, 0});
    for (int i = 0; i < 50; ++i) {
        for (const auto& client : clients)
            if (client->isWritable()) client->request({20, 0}, tk::command::get);
        bus.settle();
    }
    EXPECT_GT(keptFor(hostile), Budgets::userLimit / 2);
    expectTheOthersGoOn();
    bus.hub.close();
}

TEST_F(BudgetTest, APeerThatReadsNothingIsNotServedAnyFurther) {
    connectHostile(1);
    class Verbose final : public tk::Handler {
    public:
        tk::message cmdGet(const tk::message&) override {
            ++served;
            return text(std::string(60000, 'x'));
        }
        int served = 0;
    } handler;
    bus.hub.addService(handler, {20, 0});
    for (int i = 0; i < 100; ++i) clients[0]->request({20, 0}, tk::command::get);
    bus.settle();
    EXPECT_LT(handler.served, 80);
    EXPECT_FALSE(clients[0]->isClosed());
    std::size_t read = 0;
    for (int reads = 0; reads < 100 && read < 100; ++reads) read += bus.arrivedAt(*clients[0]).size();
    EXPECT_EQ(read, 100U) << "it is served as it reads on";
    bus.hub.close();
}

TEST_F(BudgetTest, RequestsToAProgramThatStandsStill) {
    connectHostile(30);
    for (int i = 0; i < 30; ++i)
        for (const auto& client : clients) {
            client->request({80}, tk::command::get, text(std::string(60000, 'x')));
            bus.settle();
        }
    EXPECT_EQ(closed(), 0U) << "requests are refused, and the connections stay";
    std::size_t refused = 0;
    for (const auto& client : clients)
        for (const tk::message& end : client->take()) refused += codeOf(end) == tk::error::busy;
    EXPECT_GT(refused, 500U);
    EXPECT_LT(keptFor(daemon), 100000U) << "who is asked does not pay";
    expectTheOthersGoOn();
    EXPECT_EQ(output.text(),
              "bus: message of user 900 refused: too much waits for this program to read it\n");
}

TEST_F(BudgetTest, RequestsWithoutANumberToo) {
    connectHostile(1);
    tk::message request = text(std::string(60000, 'x'));
    request.insert_u32_array(tk::field::destination, {80});
    tk::stamp(request, {}, 0, tk::Kind::request, tk::command::get);
    for (int i = 0; i < 500; ++i) {
        clients[0]->send(request);
        bus.settle();
        (void)clients[0]->take();
    }
    expectTheOthersGoOn();
}

TEST_F(BudgetTest, RequestsThatAreUnderWay) {
    connectHostile(30);
    std::size_t refused = 0;
    for (const auto& client : clients)
        for (int i = 0; i < 1000; ++i) {
            client->request({80}, tk::command::get);
            if (i % 100 != 99) continue;
            (void)bus.arrivedAt(*program);  // it reads, and never answers
            for (const tk::message& end : client->take()) refused += codeOf(end) == tk::error::busy;
        }
    EXPECT_GT(refused, 10000U);
    expectTheOthersGoOn();
}

TEST_F(BudgetTest, ALargeFrameOfAUserEndsItsConnectionAndRootsDoesNot) {
    connectHostile(1);
    const auto administrator = bus.connect();
    std::string large;
    ASSERT_TRUE(tk::appendFrame(large, text(std::string(tk::memberFrameLimit, 'x'))));
    clients[0]->sendBytes(large.substr(0, 100));
    administrator->sendBytes(large.substr(0, 100));
    bus.settle();
    EXPECT_TRUE(clients[0]->isClosed());
    EXPECT_FALSE(administrator->isClosed());
    EXPECT_EQ(output.text(), "bus: 1002 left: it sent a frame that is too large\n");
}

TEST_F(BudgetTest, WhatWasReadMakesRoomAgain) {
    connectHostile(1);
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 20; ++i) {
            clients[0]->request({80}, tk::command::get, text(std::string(60000, 'x')));
            bus.settle();
        }
        std::size_t arrived = 0;
        for (int reads = 0; reads < 100 && arrived < 20; ++reads)
            for (const tk::message& request : bus.arrivedAt(*program)) {
                ++arrived;
                program->answer(request, {});
            }
        ASSERT_EQ(arrived, 20U);
        ASSERT_EQ(bus.arrivedAt(*clients[0]).size(), 20U);
    }
    EXPECT_LT(keptFor(hostile), 10000U) << "the connection itself";
    clients.clear();
    bus.settle();
    EXPECT_EQ(keptFor(hostile), 0U);
}

}  // namespace
}  // namespace hub
