// What doctor asks the router's programs, and what it makes of refusals.

#include "ctl/busfacts.h"

#include <gtest/gtest.h>

#include "contract/interfaces.h"
#include "ctl/fieldspec.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

using tk::testing::listOf;

const tk::Path interfaces{20, 0}, rules{20, 5}, gateway{80, 0};

struct BusFactsTest : testing::Test {
    BusFactsTest() {
        bus.answer(interfaces, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=1", "0x10005:string=lan0"})}));
        bus.answer(rules, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=3", "1100:u64=12", "1101:u64=3456"})}));
        bus.answer(gateway, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=4", "0xFE000A:bool=no", "1:u32=1", "2:u32=2"})}));
    }
    doctor::BusFacts read() {
        Session session(bus);
        return readBusFacts(session);
    }
    tk::testing::ScriptedBus bus;
};

TEST_F(BusFactsTest, NoQuestionTakesLongerThanPeopleWait) {
    (void)read();  // only the questions count
    ASSERT_FALSE(bus.requests.empty());
    for (const auto& request : bus.requests) EXPECT_EQ(request.timeout, 3000U);
}

TEST_F(BusFactsTest, AnInterfaceThatVanishesMeanwhileHasNoSide) {
    bus.answer(interfaces, contract::tellSide, tk::errorMsg(tk::error::noSuchObject, "no such interface"));
    const doctor::BusFacts facts = read();
    EXPECT_TRUE(facts.routerAnswers && facts.daemonAnswers);
    EXPECT_EQ(facts.interfaces, (std::vector<doctor::InterfaceFact>{{1, "lan0", contract::SideReply{}}}));
    EXPECT_EQ(facts.flows.size(), 1U);
    EXPECT_EQ(facts.mappedPackets, 12U);
}

TEST_F(BusFactsTest, RulesThatAreNotToldDoNotMakeTheRouterSilent) {
    bus.answer(rules, tk::command::getAll, tk::errorMsg(tk::error::refused, "too busy"));
    const doctor::BusFacts facts = read();
    EXPECT_TRUE(facts.routerAnswers && facts.daemonAnswers);
    EXPECT_EQ(facts.rulesSilence, "too busy");
}

TEST_F(BusFactsTest, ADaemonThatThisUserMayNotAskIsNotSilent) {
    bus.answer(gateway, tk::command::get, tk::errorMsg(tk::error::notAllowed, "may not look"));
    const doctor::BusFacts facts = read();
    EXPECT_EQ(facts.daemonRefusal, "may not look");
    EXPECT_EQ(facts.daemonSilence, "");
}

TEST_F(BusFactsTest, TheReasonOfSilenceIsWithoutAdvice) {
    bus.answer(gateway, tk::command::get, tk::errorMsg(tk::error::unreachable, "nobody at this destination"));
    const doctor::BusFacts facts = read();
    EXPECT_FALSE(facts.daemonAnswers);
    EXPECT_EQ(facts.daemonSilence, "upnpd does not answer: nobody at this destination");
}

}  // namespace
}  // namespace ctl
