#include "tk/looper.h"

#include <cerrno>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "tk/inquiry.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/fakehub.h"
#include "tk/testing/testloop.h"
#include "tk/timer.h"

namespace tk {
namespace {

constexpr std::uint32_t statusChanged = 0xFE000B;

/// A handler that notes what reaches it, and answers with its own mark.
class Noting final : public Handler {
public:
    explicit Noting(std::uint32_t mark = 0) : mark(mark) {}

    message cmdGet(const message&) override {
        message reply;
        reply.insert_u32(1, mark);
        return reply;
    }
    message cmdUnknown(const message& received, std::uint32_t command) override {
        told.emplace_back(received.get_u32_array(field::sender), command);
        if (onTold) onTold();
        return {};
    }
    message handleBrkpath(const message& received) override {
        ++brokenPaths;
        return Handler::handleBrkpath(received);
    }
    message checkPolicy(const message&) override { return policy; }

    std::uint32_t mark;
    std::vector<std::pair<Path, std::uint32_t>> told;
    std::function<void()> onTold;
    int brokenPaths = 0;
    message policy;
};

class LooperTest : public ::testing::Test {
protected:
    /// Dispatches a `get` to the path, and returns the end as it was posted.
    message getFrom(const Path& to) {
        message request;
        request.insert_u32_array(field::destination, to);
        stamp(request, {1000}, 9, Kind::request, command::get);
        loop.looper.dispatch(request);
        return loop.bus.posted.back();
    }
    /// The mark in the reply, or the code of the error.
    std::uint32_t answerOf(const Path& to) {
        const message end = getFrom(to);
        std::uint32_t code = 0;
        return isError(end, &code) ? code : end.get_u32(1);
    }

    tk::testing::TestLoop loop;
};

using LooperRun = LooperTest;
using LooperDispatch = LooperTest;
using LooperNotify = LooperTest;

TEST_F(LooperTest, IsTheProcessesLoop) {
    EXPECT_EQ(getLooper(), &loop.looper);
    EXPECT_EQ(getRunner(), &loop.looper.runner());
}

TEST_F(LooperTest, PutsItsHandlersOnTheBusUnderTheProgramsPath) {
    Noting handler;
    loop.looper.addHandler(3, &handler);
    EXPECT_EQ(handler.path(), (Path{80, 3}));
    EXPECT_EQ(loop.looper.path(), (Path{80, 0}));
}

TEST_F(LooperRun, EndsWhenALeaveRequestIsDue) {
    loop.looper.setupLeave(1000);
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 10000);
    loop.clock.advance(10000);
    loop.looper.run();
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(LooperRun, GoesOnWhenTheLeaveRequestIsWithdrawn) {
    struct Ender {
        void end() {
            ended = true;
            getLooper()->leave();
        }
        bool ended = false;
    } ender;
    loop.looper.setupLeave(1);
    loop.looper.setupLeave(0);
    loop.looper.runner().addTimer<Ender, &Ender::end>(&ender, 2);
    loop.clock.advance(10);
    loop.looper.turn(0);
    loop.clock.advance(10);
    loop.looper.run();
    EXPECT_TRUE(ender.ended);  // it was this that ended the loop
}

TEST_F(LooperRun, LeaveRequestThatIsDueCanStillBeWithdrawnInTheSameTurn) {
    struct Withdrawer {
        void withdraw() { getLooper()->setupLeave(0); }
        void end() {
            ended = true;
            getLooper()->leave();
        }
        bool ended = false;
    } other;
    loop.looper.setupLeave(1);
    loop.looper.runner().addTimer<Withdrawer, &Withdrawer::withdraw>(&other, 1);
    loop.looper.runner().addTimer<Withdrawer, &Withdrawer::end>(&other, 2);
    loop.clock.advance(10);
    loop.looper.turn(0);
    loop.clock.advance(10);
    loop.looper.run();
    EXPECT_TRUE(other.ended);
}

TEST_F(LooperRun, NewLeaveRequestReplacesTheOldOne) {
    loop.looper.setupLeave(1);
    loop.looper.setupLeave(5);
    EXPECT_EQ(loop.looper.runner().timerCount(), 1U);
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 50);
}

TEST_F(LooperRun, MayBeCalledAgain) {
    loop.looper.leave();
    loop.looper.run();
    loop.looper.setupLeave(1);
    loop.clock.advance(10);
    loop.looper.run();
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);  // the second call ran until the request was due
}

TEST_F(LooperDispatch, GoesByTheSecondElementOfThePath) {
    Noting zero(10);
    Noting one(11);
    loop.looper.addHandler(0, &zero);
    loop.looper.addHandler(1, &one);
    EXPECT_EQ(answerOf({80, 0}), 10U);
    EXPECT_EQ(answerOf({80, 1}), 11U);
    EXPECT_EQ(answerOf({80}), 10U);
}

TEST_F(LooperDispatch, EndsARequestWithOneStampedReply) {
    Noting zero(10);
    loop.looper.addHandler(0, &zero);
    message expected;
    expected.insert_u32(1, 10);
    expected.insert_u32_array(0xFF0001, {1000});
    expected.insert_u32_array(0xFF0002, {80, 0});
    expected.insert_u32(0xFF0003, 9);
    expected.insert_u32(0xFF0005, 2);
    expected.insert_u32(0xFF0007, 0xFE000D);
    EXPECT_EQ(getFrom({80, 0}), expected);
    EXPECT_EQ(loop.bus.posted.size(), 1U);
}

TEST_F(LooperDispatch, UnknownHandlersAreAnError) {
    Noting zero(10);
    loop.looper.addHandler(0, &zero);
    EXPECT_EQ(answerOf({80, 7}), error::unreachable);
    loop.looper.removeHandler(0);
    EXPECT_EQ(answerOf({80, 0}), error::unreachable);
    EXPECT_EQ(kindOf(loop.bus.posted.back()), Kind::error);
}

TEST_F(LooperDispatch, PathsThatGoOnAfterTheHandlerAreItsBusinessAndAnErrorByDefault) {
    Noting zero(10);
    loop.looper.addHandler(0, &zero);
    EXPECT_EQ(answerOf({80, 0, 1}), error::unreachable);
    EXPECT_EQ(zero.brokenPaths, 1);
}

TEST_F(LooperDispatch, PolicyOfTheHandlerRefusesARequestBeforeItIsServed) {
    Noting zero(10);
    zero.policy = errorMsg(error::notAllowed, "no");
    loop.looper.addHandler(0, &zero);
    EXPECT_EQ(answerOf({80, 0}), error::notAllowed);
}

TEST_F(LooperDispatch, EndsThatNobodyWaitsForAreDropped) {
    Noting zero;
    loop.looper.addHandler(0, &zero);
    message late;
    stamp(late, {20, 0}, 5, Kind::reply, command::get);
    loop.looper.dispatch(late);
    message lateError = errorMsg(error::failed, "late");
    stamp(lateError, {20, 0}, 6, Kind::error, command::get);
    loop.looper.dispatch(lateError);
    EXPECT_TRUE(loop.bus.posted.empty());
    EXPECT_TRUE(zero.told.empty());
}

TEST_F(LooperNotify, ReachesSubscribedHandlersOnly) {
    Noting subscribed;
    Noting other;
    loop.looper.addHandler(0, &subscribed);
    loop.looper.addHandler(1, &other);
    subscribed.subscribe({20, 0}, statusChanged, {});
    loop.notify({20, 0}, statusChanged, {});
    ASSERT_EQ(subscribed.told.size(), 1U);
    EXPECT_EQ(subscribed.told[0], std::pair(Path({20, 0}), statusChanged));
    EXPECT_TRUE(other.told.empty());
    EXPECT_TRUE(loop.bus.posted.empty());  // a notification has no answer
}

TEST_F(LooperNotify, GoesByTheExactPathAndCommand) {
    Noting handler;
    loop.looper.addHandler(0, &handler);
    handler.subscribe({20, 0}, statusChanged, {});
    loop.notify({20, 1}, statusChanged, {});
    loop.notify({20}, statusChanged, {});
    loop.notify({20, 0, 0}, statusChanged, {});
    loop.notify({20, 0}, 0x10004, {});
    EXPECT_TRUE(handler.told.empty());
}

TEST_F(LooperNotify, StopsWithTheSubscription) {
    Noting handler;
    loop.looper.addHandler(0, &handler);
    handler.subscribe({20, 0}, statusChanged, {});
    handler.unsubscribe({20, 0}, statusChanged, {});
    loop.notify({20, 0}, statusChanged, {});
    EXPECT_TRUE(handler.told.empty());
}

TEST_F(LooperNotify, DoesNotReachAHandlerThatAnEarlierOneReplaced) {
    Noting first;
    auto second = std::make_unique<Noting>();
    Noting replacement;
    loop.looper.addHandler(0, &first);
    loop.looper.addHandler(1, second.get());
    for (Noting* handler : {&first, second.get(), &replacement})
        handler->subscribe({20, 0}, statusChanged, {});
    first.onTold = [&] {
        loop.looper.removeHandler(1);
        second.reset();
        loop.looper.addHandler(1, &replacement);
    };
    loop.notify({20, 0}, statusChanged, {});
    EXPECT_EQ(first.told.size(), 1U);
    EXPECT_TRUE(replacement.told.empty());  // it came when the notification was on its way
}

/// A loop that joins a fake hub, which answers the registration from a thread of its own.
class LooperJoin : public LooperTest {
protected:
    Status join(const message& answer) {
        std::thread answering([&] {
            hub.accept();
            if (hub.read(registration)) hub.sendEnd(registration.get_u32(field::number), answer);
        });
        Status joined = loop.looper.join(80, hub.path());
        answering.join();
        return joined;
    }
    tk::testing::FakeHub hub;
    message registration;
};

/// What program 80 asks of the hub for itself.
message requestToHub(std::uint32_t number, std::uint32_t command) {
    message request;
    request.insert_u32(1, 80);
    request.insert_u32_array(0xFF0001, {0});
    request.insert_u32_array(0xFF0002, {80, 0});
    request.insert_u32(0xFF0003, number);
    request.insert_u32(0xFF0005, 1);
    request.insert_u32(0xFF0007, command);
    return request;
}

TEST_F(LooperJoin, RegistersTheProgramAtTheHub) {
    ASSERT_EQ(join({}), Status());
    EXPECT_EQ(registration, requestToHub(1, 1));
}

TEST_F(LooperJoin, FailsWithTheHubsReasonWhenTheNumberIsTaken) {
    EXPECT_EQ(join(errorMsg(error::exists, "program 80 is taken")),
              Status::failure("program 80 is taken", error::exists));
    EXPECT_TRUE(hub.seesEnd());
}

TEST_F(LooperJoin, FailsWithTheSystemsReasonWithoutAHub) {
    EXPECT_EQ(loop.looper.join(80, hub.path() + "none"),
              Status::failure("No such file or directory: start routerd first", ENOENT));
}

TEST_F(LooperJoin, ServesRequestsOfTheHubThroughTheLoop) {
    Noting zero(10);
    loop.looper.addHandler(0, &zero);
    ASSERT_EQ(join({}), Status());
    hub.sendRequest({80, 0}, 44, command::get, {});
    loop.settle();
    message end;
    ASSERT_TRUE(hub.read(end));
    EXPECT_EQ(end.get_u32(field::number), 44U);
    EXPECT_EQ(end.get_u32(1), 10U);
    EXPECT_EQ(kindOf(end), Kind::reply);
}

TEST_F(LooperJoin, HandlersMakeTheirExchangesOverTheJoinedBus) {
    Noting zero;
    loop.looper.addHandler(0, &zero);
    ASSERT_EQ(join({}), Status());
    message reply;
    reply.insert_string(1, "router-7");
    hub.sendEnd(2, reply);
    message request;
    request.insert_u32_array(field::destination, {65});
    EXPECT_EQ(zero.exchangeCmd(request, command::get, exchangeTimeout).get_string(1), "router-7");
}

/// Notes how an inquiry ended.
struct Ending final : Inquiry::Owner {
    void inquiryEnded(const message& end) override { how += isError(end) ? getError(end) + ";" : "reply;"; }
    std::string how;
};

TEST_F(LooperJoin, InquiriesEndWithTheBus) {
    ASSERT_EQ(join({}), Status());
    message request;
    request.insert_u32_array(field::destination, {14});
    Ending ending;
    Inquiry first(ending), second(ending);
    first.start(request, 3, exchangeTimeout);
    second.start(request, 3, exchangeTimeout);
    const tk::testing::CapturedOutput quiet;
    hub.close();
    loop.looper.run();  // until the bus is lost
    EXPECT_EQ(ending.how, "the bus is gone;the bus is gone;");
    Inquiry third(ending);
    third.start(request, 3, exchangeTimeout);
    loop.settle();
    EXPECT_EQ(ending.how, "the bus is gone;the bus is gone;the bus is gone;");
}

TEST_F(LooperJoin, ResigningGivesTheProgramsNumberUp) {
    ASSERT_EQ(join({}), Status());
    hub.sendEnd(2, {});  // the registration was the first
    EXPECT_TRUE(loop.looper.resign());
    message sent;
    ASSERT_TRUE(hub.read(sent));
    EXPECT_EQ(sent, requestToHub(2, 6));
}

TEST_F(LooperJoin, RequestsFromBeforeResigningAreServedAheadOfTimersArmedAfterwards) {
    struct Leaver {
        void leave() { servedBefore = handler.told.size(); }
        Noting handler;
        std::size_t servedBefore = 0;
    } leaver;
    loop.looper.addHandler(0, &leaver.handler);
    ASSERT_EQ(join({}), Status());
    hub.sendRequest({80}, 7, 77, {});
    hub.sendRequest({80}, 8, 77, {});
    hub.sendEnd(2, {});
    EXPECT_TRUE(loop.looper.resign());
    EXPECT_TRUE(leaver.handler.told.empty());
    Timer<Leaver, &Leaver::leave> timer{leaver};
    timer.arm(0);
    loop.settle();
    EXPECT_EQ(leaver.servedBefore, 2U);
    message sent;
    ASSERT_TRUE(hub.read(sent));
    for (const std::uint32_t number : {7U, 8U}) {
        ASSERT_TRUE(hub.read(sent));
        EXPECT_EQ(sent.get_u32(field::number), number);
        EXPECT_EQ(kindOf(sent), Kind::reply);
    }
}

TEST_F(LooperJoin, ResigningFailsWhenTheHubRefuses) {
    ASSERT_EQ(join({}), Status());
    hub.sendEnd(2, errorMsg(error::busy, "requests of this program are under way"));
    EXPECT_FALSE(loop.looper.resign());
}

TEST_F(LooperJoin, LosingTheBusEndsTheLoopWithOneLogLine) {
    ASSERT_EQ(join({}), Status());
    const tk::testing::CapturedOutput output;
    hub.close();
    loop.looper.run();
    EXPECT_EQ(output.text(), "bus lost: it closed the connection\n");
}

}  // namespace
}  // namespace tk
