#include "tk/inquiry.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/fakehub.h"
#include "tk/testing/testloop.h"

namespace tk {
namespace {

constexpr std::uint32_t command = 3;

message question() {
    message request;
    request.insert_u32_array(field::destination, {14});
    request.insert_string(3, "host.example");
    return request;
}

message text(const std::string& content) {
    message reply;
    reply.insert_string(1, content);
    return reply;
}

/// Notes the ends of its inquiries, and drops each one at its end.
struct Asker final : Inquiry::Owner {
    void ask() {
        inquiry = std::make_unique<Inquiry>(*this);
        inquiry->start(question(), command, 6000);
    }
    void inquiryEnded(const message& end) override {
        ends.push_back(isError(end) ? getError(end) : end.get_string(1));
        inquiry.reset();
    }

    std::vector<std::string> ends;
    std::unique_ptr<Inquiry> inquiry;
};

using Ends = std::vector<std::string>;

class Inquiries : public ::testing::Test {
protected:
    tk::testing::TestLoop loop;
    Asker asker;
};

TEST_F(Inquiries, GoOutAsAnExchangeOfTheLoopWould) {
    asker.ask();
    ASSERT_EQ(loop.bus.requests.size(), 1U);
    EXPECT_EQ(loop.bus.requests[0].content, question());
    EXPECT_EQ(loop.bus.requests[0].from, (Path{80, 0}));
    EXPECT_EQ(loop.bus.requests[0].command, command);
}

TEST_F(Inquiries, EndFromTheLoopAndNeverWhileTheyStart) {
    loop.bus.answer({14}, command, text("answer"));
    asker.ask();
    EXPECT_EQ(asker.ends, Ends());
    loop.settle();
    EXPECT_EQ(asker.ends, Ends{"answer"});
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(Inquiries, EndWithTheErrorOfTheCallee) {
    loop.bus.answer({14}, command, errorMsg(error::busy, "too many"));
    asker.ask();
    loop.settle();
    EXPECT_EQ(asker.ends, Ends{"too many"});
}

TEST_F(Inquiries, EndWhenTheirTimeIsOverAndNoSooner) {
    loop.bus.keepSilent({14}, command);
    asker.ask();
    loop.advance(599);
    EXPECT_EQ(asker.ends, Ends());
    loop.advance(1);
    EXPECT_EQ(asker.ends, Ends{"timed out"});
    EXPECT_EQ(loop.bus.forgotten, loop.bus.asked);
    loop.end(1, text("late"));
    EXPECT_EQ(asker.ends, Ends{"timed out"});
}

TEST_F(Inquiries, AreWithdrawnWhenTheyAreDestroyed) {
    loop.bus.keepSilent({14}, command);
    asker.ask();
    asker.inquiry.reset();
    EXPECT_EQ(loop.bus.forgotten, loop.bus.asked);
    loop.end(1, text("late"));
    loop.advance(600);
    EXPECT_EQ(asker.ends, Ends());
}

TEST_F(Inquiries, EachGetsItsOwnEnd) {
    loop.bus.keepSilent({14}, command);
    Asker others[2];
    for (Asker& other : others) other.ask();
    loop.end(2, text("second"));
    loop.end(1, text("first"));
    EXPECT_EQ(others[0].ends, Ends{"first"});
    EXPECT_EQ(others[1].ends, Ends{"second"});
}

/// A loop on a connection to a hub that the test plays.
class InquiriesOverTheHub : public ::testing::Test, public BusConnection::Receiver {
protected:
    void SetUp() override {
        auto opened = BusConnection::open(hub.path(), loop.looper.runner(), this);
        ASSERT_TRUE(opened.isOk()) << opened.reason();
        connection = opened.take();
        hub.accept();
    }
    void busReceived(const message& arrived) override { received.push_back(arrived.get_string(1)); }
    void busLost(const std::string&) override {}
    std::uint32_t ask() {
        std::uint32_t number = 0;
        EXPECT_FALSE(isError(connection->ask(question(), {80, 0}, command, number)));
        return number;
    }

    tk::testing::TestLoop loop;
    tk::testing::FakeHub hub;
    std::unique_ptr<BusConnection> connection;
    Ends received;
};

TEST_F(InquiriesOverTheHub, EndThatArrivesDuringAnExchangeIsHandedOnAfterIt) {
    const std::uint32_t number = ask();
    hub.sendNotification({20, 0}, 1, text("before"));
    hub.sendEnd(number, text("answer"));
    hub.sendNotification({20, 0}, 1, text("behind"));
    hub.sendEnd(number + 1, text("of the exchange"));
    EXPECT_EQ(connection->exchange(question(), {80, 0}, command, 6000).get_string(1), "of the exchange");
    EXPECT_EQ(received, Ends());
    loop.settle();
    EXPECT_EQ(received, (Ends{"before", "answer", "behind"}));
}

TEST_F(InquiriesOverTheHub, SecondEndAndThatOfAForgottenRequestAreDiscarded) {
    const std::uint32_t first = ask(), second = ask();
    connection->forget(second);
    for (const std::uint32_t number : {first, first, second, second + 1}) hub.sendEnd(number, text("end"));
    loop.settle();
    EXPECT_EQ(received, Ends{"end"});
}

TEST_F(InquiriesOverTheHub, AreNotSentWhenTheBusIsGone) {
    hub.close();
    const tk::testing::CapturedOutput quiet;
    loop.settle();
    std::uint32_t number = 0;
    EXPECT_EQ(getError(connection->ask(question(), {80, 0}, command, number)), "the bus is gone");
}

}  // namespace
}  // namespace tk
