#include "resolver/resolver.h"

#include <arpa/inet.h>
#include <malloc.h>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "contract/resolver.h"
#include "resolver/testing/fakedns.h"
#include "tk/names.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"
#include "tk/timer.h"

namespace resolver {
namespace {

using testing::addressRecord;
using testing::FakeDns;

constexpr std::uint32_t idleTicks = 6000;
const std::uint32_t nas = ::inet_addr("192.0.2.7");
const std::uint32_t other = ::inet_addr("192.0.2.8");

class ResolverTest : public ::testing::Test {
protected:
    ResolverTest() { loop.looper.addHandler(0, &resolver); }

    Settings settings() { return {idleTicks, dns.address(), {folder.file("hosts")}}; }

    /// Sends a request with the next number.
    void ask(const std::string& name, const std::string& more = {}) {
        tk::message request;
        if (!more.empty()) request.insert_string(99, more);
        request.insert_u32_array(tk::field::destination, {contract::program::gateway});
        request.insert_string(contract::resolvefield::name, name);
        tk::stamp(request, {1000}, ++numbers, tk::Kind::request, contract::resolveName);
        loop.looper.dispatch(request);
    }
    /// The numbers of the requests that have ended, in the order of their ends.
    std::vector<std::uint32_t> ended() const {
        std::vector<std::uint32_t> found;
        for (const tk::message& end : loop.bus.posted) found.push_back(end.get_u32(tk::field::number));
        return found;
    }
    /// Runs the loop, in which time stands still, until `count` requests have ended. Returns the last end.
    tk::message endOf(std::size_t count) {
        for (int turns = 0; loop.bus.posted.size() < count && turns < 50; ++turns) loop.looper.turn(100);
        EXPECT_EQ(loop.bus.posted.size(), count);
        return loop.bus.posted.empty() ? tk::message() : tk::withoutRouting(loop.bus.posted.back());
    }
    /// The ticks until the only armed timer expires.
    std::uint32_t untilLeave() {
        EXPECT_EQ(loop.looper.runner().timerCount(), 1u);
        return static_cast<std::uint32_t>(loop.looper.runner().untilNextTimer()) / tk::tickMilliseconds;
    }

    static tk::message addressReply(std::uint32_t address) {
        tk::message reply;
        reply.insert_be32(contract::resolvefield::address, address);
        return reply;
    }

    tk::testing::TestLoop loop;
    tk::testing::Folder folder;
    FakeDns dns;
    Resolver resolver{settings()};
    std::uint32_t numbers = 0;
};

TEST_F(ResolverTest, KeepsOnlyTheRoutingOfAWaitingRequest) {
    constexpr std::size_t size = std::size_t{512} * 1024;
    const std::size_t before = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
    for (std::size_t i = 0; i < Resolver::waitingLimit; ++i) ask("nas.example", std::string(size, 'x'));
    EXPECT_LT(::mallinfo2().uordblks + ::mallinfo2().hblkhd, before + size);
    EXPECT_TRUE(ended().empty());  // all of them wait
}

TEST_F(ResolverTest, AnswersWhenTheNameServerHas) {
    ask("nas.example");
    EXPECT_TRUE(loop.bus.posted.empty());
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(1), addressReply(nas));
    const tk::message& end = loop.bus.posted[0];
    EXPECT_EQ(end.get_u32_array(tk::field::destination), (tk::Path{1000}));
    EXPECT_EQ(end.get_u32_array(tk::field::sender), (tk::Path{contract::program::gateway, 0}));
    EXPECT_EQ(end.get_u32(tk::field::number), 1u);
    EXPECT_EQ(end.get_u32(tk::field::command), contract::resolveName);
}

TEST_F(ResolverTest, UnknownNamesEndInAnError) {
    ask("nosuch.example");
    dns.answer(dns.take(), {}, testing::nameError);
    EXPECT_EQ(endOf(1), tk::errorMsg(tk::error::noSuchObject, "unknown host name: nosuch.example"));
}

TEST_F(ResolverTest, ATextThatIsNotAHostNameIsRefusedAtOnceAndAsksNobody) {
    for (const char* text : {"", "192.0.2.1", "a b", "under_score.example", "-a.example"}) {
        loop.bus.posted.clear();
        ask(text);
        EXPECT_EQ(endOf(1), tk::errorMsg(tk::error::invalid, "not a host name")) << text;
    }
    EXPECT_TRUE(dns.isQuiet());
}

TEST_F(ResolverTest, OtherCommandsAreUnknown) {
    EXPECT_EQ(loop.request(4, {}), tk::errorMsg(tk::error::noSuchCommand, "no such command"));
}

TEST_F(ResolverTest, ANameWithoutAnAnswerEndsWithinASecond) {
    ask("nas.example");
    loop.advance(99);
    EXPECT_TRUE(loop.bus.posted.empty());
    loop.advance(1);
    EXPECT_EQ(endOf(1),
              tk::errorMsg(tk::error::failed, "the name servers do not answer in time: nas.example"));
}

TEST_F(ResolverTest, RequestsForOneNameShareALookup) {
    ask("nas.example");
    ask("NAS.example");
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(3), addressReply(nas));
    EXPECT_EQ(ended(), (std::vector<std::uint32_t>{1, 2, 3}));
    EXPECT_TRUE(dns.isQuiet());
}

TEST_F(ResolverTest, SeveralNamesAreLookedUpAtOnce) {
    ask("slow.example");
    const testing::Query slow = dns.take();
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(1), addressReply(nas));
    dns.answer(slow, {addressRecord(other, 60)});
    EXPECT_EQ(endOf(2), addressReply(other));
    EXPECT_EQ(ended(), (std::vector<std::uint32_t>{2, 1}));
}

TEST_F(ResolverTest, AnAddressIsRememberedForItsLifetime) {
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    (void)endOf(1);
    loop.advance(5999);
    ask("Nas.Example");
    EXPECT_EQ(loop.bus.posted.size(), 2u);
    EXPECT_TRUE(dns.isQuiet());
    loop.advance(1);
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(other, 60)});
    EXPECT_EQ(endOf(3), addressReply(other));
}

TEST_F(ResolverTest, AnUnknownNameIsRememberedForAWhile) {
    ask("nosuch.example");
    dns.answer(dns.take(), {}, testing::nameError);
    const tk::message first = endOf(1);
    loop.advance(Lookup::unknownLifetime * 100 - 1);
    ask("nosuch.example");
    EXPECT_EQ(endOf(2), first);
    EXPECT_TRUE(dns.isQuiet());
    loop.advance(1);
    ask("nosuch.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(3), addressReply(nas));
}

TEST_F(ResolverTest, ChangedFilesMakeItForget) {
    ask("nosuch.example");
    dns.answer(dns.take(), {}, testing::nameError);
    (void)endOf(1);
    folder.write("hosts", "192.0.2.9 another.example\n");
    ask("nosuch.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(2), addressReply(nas));
}

TEST_F(ResolverTest, AnAnswerFromBeforeAChangeIsNotRemembered) {
    ask("nas.example");
    const testing::Query query = dns.take();
    folder.write("hosts", "192.0.2.9 another.example\n");
    dns.answer(query, {addressRecord(nas, 60)});
    (void)endOf(1);
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(other, 60)});
    EXPECT_EQ(endOf(2), addressReply(other));
}

TEST_F(ResolverTest, OneNameTooManyIsRefusedUntilAnotherHasEnded) {
    for (std::size_t i = 0; i < Resolver::lookupLimit; ++i) ask("host" + std::to_string(i) + ".example");
    EXPECT_TRUE(loop.bus.posted.empty());
    ask("more.example");
    EXPECT_EQ(endOf(1), tk::errorMsg(tk::error::busy, "too many names are being looked up"));
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(2), addressReply(nas));
    ask("more.example");
    EXPECT_EQ(loop.bus.posted.size(), 2u);
}

TEST_F(ResolverTest, OneRequestTooManyForANameIsRefused) {
    for (std::size_t i = 0; i < Resolver::waitingLimit; ++i) ask("nas.example");
    ask("nas.example");
    EXPECT_EQ(endOf(1), tk::errorMsg(tk::error::busy, "too many requests wait for this name"));
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(Resolver::waitingLimit + 1), addressReply(nas));
}

TEST_F(ResolverTest, LeavesAfterTheIdleTime) {
    EXPECT_EQ(untilLeave(), idleTicks);  // even when nobody asks at all
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 3600)});
    (void)endOf(1);
    EXPECT_EQ(untilLeave(), idleTicks);
    loop.advance(idleTicks - 1);
    EXPECT_EQ(untilLeave(), 1u);
    ask("nas.example");  // a remembered answer counts like any other
    EXPECT_EQ(untilLeave(), idleTicks);
    loop.advance(idleTicks);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
    loop.looper.run();  // ends at once
}

TEST_F(ResolverTest, GivesTheProgramsNumberUpBeforeItLeaves) {
    loop.advance(idleTicks - 1);
    EXPECT_TRUE(loop.bus.requests.empty());
    loop.advance(1);
    const auto requests = loop.bus.requestsTo({tk::program::hub}, tk::command::hubUnregister);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests.front().content.get_u32(1),
              contract::program::gateway);  // the name of this test's loop
    EXPECT_EQ(loop.bus.requests.size(), 1u);
    loop.looper.run();  // ends at once
}

/// Asks for a name as if the question had arrived with the hub's answer.
class LastQuestionTest : public ResolverTest {
protected:
    LastQuestionTest() {
        loop.bus.onRequest = [this](const auto&) { arrival.arm(0); };
    }
    void arrive() {
        for (const char* name : names) ask(name);
    }

    std::vector<const char*> names{"nas.example"};
    tk::Timer<LastQuestionTest, &LastQuestionTest::arrive> arrival{*this};
};

TEST_F(LastQuestionTest, IsAnsweredBeforeItLeaves) {
    loop.advance(idleTicks);
    EXPECT_TRUE(loop.bus.posted.empty());
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    loop.looper.run();
    EXPECT_EQ(endOf(1), addressReply(nas));
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(LastQuestionTest, OfSeveralNamesEachIsAnsweredBeforeItLeaves) {
    names = {"nas.example", "192.0.2.1", "other.example"};
    loop.advance(idleTicks);
    EXPECT_EQ(ended(), (std::vector<std::uint32_t>{2}));
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(2), addressReply(nas));
    dns.answer(dns.take(), {addressRecord(other, 60)});
    loop.looper.run();
    EXPECT_EQ(endOf(3), addressReply(other));
}

TEST_F(LastQuestionTest, ThatNeedsNoLookupIsAnsweredAndItLeavesAtOnce) {
    names = {"192.0.2.1"};
    loop.advance(idleTicks);
    loop.looper.run();
    EXPECT_EQ(ended(), (std::vector<std::uint32_t>{1}));
    EXPECT_EQ(loop.bus.requests.size(), 1u);
}

TEST_F(ResolverTest, StaysForAnotherIdleTimeWhereTheHubDoesNotLetItGo) {
    loop.bus.answer({tk::program::hub}, tk::command::hubUnregister,
                    tk::errorMsg(tk::error::timedOut, "timed out"));
    loop.advance(idleTicks);
    EXPECT_EQ(untilLeave(), idleTicks);
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(endOf(1), addressReply(nas));
    loop.bus.answer({tk::program::hub}, tk::command::hubUnregister, tk::message());
    loop.advance(idleTicks);
    loop.looper.run();  // ends at once
}

TEST_F(ResolverTest, DoesNotLeaveWhileANameIsUnderWay) {
    ask("nas.example");
    EXPECT_EQ(loop.looper.runner().timerCount(), 2u);  // the lookup's own: its budget, its next try
    loop.advance(Lookup::budgetTicks);
    EXPECT_EQ(untilLeave(), idleTicks);
}

}  // namespace
}  // namespace resolver
