#include "resolver/lookup.h"

#include <arpa/inet.h>

#include <optional>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "resolver/testing/fakedns.h"
#include "tk/looper.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"
#include "tk/testing/testloop.h"

namespace resolver {
namespace {

using testing::addressRecord;
using testing::aliasRecord;
using testing::FakeDns;
using testing::Query;

constexpr std::uint16_t addressType = 1;
const std::uint32_t nas = ::inet_addr("192.0.2.7");
const std::uint32_t other = ::inet_addr("192.0.2.8");

/// Holds one lookup, and destroys it when it has ended.
struct Asker final : Lookup::Owner {
    void ask(const std::string& name, const std::string& servers) {
        lookup = std::make_unique<Lookup>(name, servers, *this);
        lookup->start();
    }
    void lookupEnded(const std::string& name, const Answer& given) override {
        EXPECT_FALSE(answer) << "a lookup ended twice";
        lookup.reset();
        endedName = name;
        answer = given;
    }

    std::unique_ptr<Lookup> lookup;
    std::optional<Answer> answer;
    std::string endedName;
};

class LookupTest : public ::testing::Test {
protected:
    ~LookupTest() override {
        asker.lookup.reset();
        EXPECT_EQ(loop.looper.runner().socketCount(), 0u);
        EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
    }

    void ask(const std::string& name) { asker.ask(name, dns.address()); }
    /// Runs the loop, in which time stands still, until the lookup has ended.
    const Answer& answer() {
        for (int turns = 0; !asker.answer && turns < 50; ++turns) loop.looper.turn(100);
        static const Answer none{0, 0, 0, "no answer"};
        return asker.answer ? *asker.answer : none;
    }

    tk::testing::TestLoop loop;
    FakeDns dns;
    Asker asker;
};

TEST_F(LookupTest, AsksForTheAddressAndGivesIt) {
    ask("nas.example");
    const Query query = dns.take();
    EXPECT_EQ(query.name, "nas.example");
    EXPECT_EQ(query.type, addressType);
    EXPECT_FALSE(asker.answer);
    dns.answer(query, {addressRecord(nas, 60)});
    EXPECT_EQ(answer(), (Answer{nas, 60, 0, ""}));
    EXPECT_EQ(asker.endedName, "nas.example");
    EXPECT_TRUE(dns.isQuiet());
}

TEST_F(LookupTest, TakesTheFirstOfSeveralAddressesAndTheShortestLifetime) {
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 60), addressRecord(other, 20)});
    EXPECT_EQ(answer(), (Answer{nas, 20, 0, ""}));
}

TEST_F(LookupTest, FollowsAliases) {
    ask("www.example");
    dns.answer(dns.take(), {aliasRecord("nas.example", 15), addressRecord(nas, 60)});
    EXPECT_EQ(answer(), (Answer{nas, 15, 0, ""}));
}

TEST_F(LookupTest, LifetimesAreBounded) {
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 86400)});
    EXPECT_EQ(answer(), (Answer{nas, Lookup::longestLifetime, 0, ""}));
}

TEST_F(LookupTest, AnAddressWithoutALifetimeIsUsedOnce) {
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(nas, 0)});
    EXPECT_EQ(answer(), (Answer{nas, 0, 0, ""}));
}

TEST_F(LookupTest, AnUnknownNameIsAnError) {
    ask("nosuch.example");
    dns.answer(dns.take(), {}, testing::nameError);
    EXPECT_EQ(answer(), (Answer{0, Lookup::unknownLifetime, tk::error::noSuchObject,
                                "unknown host name: nosuch.example"}));
    EXPECT_TRUE(dns.isQuiet());
}

TEST_F(LookupTest, AHostWithoutAnAddressOfThisKindIsAnError) {
    ask("six.example");
    dns.answer(dns.take(), {});
    EXPECT_EQ(answer(), (Answer{0, Lookup::unknownLifetime, tk::error::noSuchObject,
                                "the host has no IPv4 address: six.example"}));
}

TEST_F(LookupTest, AddressZeroCountsAsNone) {
    ask("blocked.example");
    dns.answer(dns.take(), {addressRecord(0, 60)});
    EXPECT_EQ(answer().errorText, "the host has no IPv4 address: blocked.example");
}

TEST_F(LookupTest, AddressZeroIsSkipped) {
    ask("nas.example");
    dns.answer(dns.take(), {addressRecord(0, 60), addressRecord(nas, 60)});
    EXPECT_EQ(answer(), (Answer{nas, 60, 0, ""}));
}

TEST_F(LookupTest, EndsWithinASecondWithoutAnAnswer) {
    ask("nas.example");
    EXPECT_FALSE(dns.take().packet.empty());
    loop.advance(Lookup::budgetTicks - 1);
    EXPECT_FALSE(asker.answer);
    loop.advance(1);
    ASSERT_TRUE(asker.answer);
    EXPECT_EQ(*asker.answer, (Answer{0, Lookup::failureLifetime, tk::error::failed,
                                     "the name servers do not answer in time: nas.example"}));
}

TEST_F(LookupTest, IgnoresWhatIsNotAnAnswerToItsQuestion) {
    ask("nas.example");
    const Query query = dns.take();
    dns.send(query, "");
    dns.send(query, "rubbish");
    Query forged = query;
    forged.packet[0] = static_cast<char>(forged.packet[0] ^ 1);  // another number
    dns.answer(forged, {addressRecord(other, 60)});
    loop.settle();
    EXPECT_FALSE(asker.answer);
    dns.answer(query, {addressRecord(nas, 60)});
    EXPECT_EQ(answer(), (Answer{nas, 60, 0, ""}));
}

TEST_F(LookupTest, AnotherServerIsAskedWhenOneFails) {
    FakeDns second;
    asker.ask("nas.example", dns.address() + "," + second.address());
    dns.answer(dns.take(), {}, testing::serverFailure);
    loop.looper.turn(1000);
    second.answer(second.take(), {addressRecord(nas, 60)});
    EXPECT_EQ(answer(), (Answer{nas, 60, 0, ""}));
}

TEST_F(LookupTest, AnUnreachableServerIsReportedAtOnce) {
    std::string gone;
    gone = FakeDns().address();  // nobody listens there any more
    asker.ask("nas.example", gone);
    EXPECT_EQ(answer(), (Answer{0, Lookup::failureLifetime, tk::error::failed,
                                "no name server can be reached: nas.example"}));
}

TEST_F(LookupTest, MalformedServersAreAnError) {
    asker.ask("nas.example", "nonsense");
    ASSERT_TRUE(asker.answer);
    EXPECT_EQ(asker.answer->errorCode, tk::error::failed);
    EXPECT_EQ(asker.answer->address, 0u);
}

TEST_F(LookupTest, CanBeGivenUpWhileItIsUnderWay) {
    ask("nas.example");
    EXPECT_FALSE(dns.take().packet.empty());
    EXPECT_GT(loop.looper.runner().socketCount(), 0u);
    asker.lookup.reset();
    loop.advance(Lookup::budgetTicks);
    EXPECT_FALSE(asker.answer);
}

TEST(LookupInRealTime, AsksAgainWhenAQuestionIsLost) {
    const tk::SystemClock clock;
    tk::testing::ScriptedBus bus;
    tk::Looper looper(clock, bus, contract::program::resolver);
    FakeDns dns;
    Asker asker;
    asker.ask("nas.example", dns.address());
    (void)dns.take();  // lost
    for (int turns = 0; dns.isQuiet() && !asker.answer && turns < 100; ++turns) looper.turn(100);
    ASSERT_FALSE(asker.answer) << "it gave up first";
    dns.answer(dns.take(), {addressRecord(nas, 60)});
    for (int turns = 0; !asker.answer && turns < 50; ++turns) looper.turn(100);
    ASSERT_TRUE(asker.answer);
    EXPECT_EQ(*asker.answer, (Answer{nas, 60, 0, ""}));
}

}  // namespace
}  // namespace resolver
