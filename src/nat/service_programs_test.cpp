// What programs may do that do not run as root.

#include "nat/service.h"

#include <gtest/gtest.h>

#include "contract/natrules.h"
#include "nat/testing/servicetest.h"
#include "tk/testing/capturedoutput.h"

namespace nat {
namespace {

using links::testing::address;
using testing::natRequest;
using testing::ServiceTest;

/// A user other than root asks, from the connection of program 80 unless a test says otherwise.
class ProgramsServiceTest : public ServiceTest {
protected:
    ProgramsServiceTest() { requester.asker = 64002; }
    /// Why a rule for this port is refused; empty when it is not.
    std::string outcome(std::uint32_t port, std::uint32_t protocol = 6) {
        return tk::getError(nat.cmdAddObj(natRequest(port, "192.0.2.2", 8080, protocol)));
    }
    static tk::message from(const tk::Path& sender, tk::message request) {
        request.insert_u32_array(tk::field::sender, sender);
        return request;
    }
    std::uint32_t addAsRoot(const tk::message& request) {
        requester.asker = 0;
        const std::uint32_t id = add(request);
        requester.asker = 64002;
        return id;
    }
};

TEST_F(ProgramsServiceTest, AProgramsRuleIsForAnAddressThatTheRouterHoldsOutside) {
    for (const char* foreign : {"1.1.1.1", "198.51.100.2", "192.0.2.1"}) {
        tk::message request = natRequest(443, "192.0.2.2", 443);
        request.insert_be32(contract::rulefield::dstAddressFirst, address(foreign));
        request.insert_be32(contract::rulefield::dstAddressLast, address(foreign));
        const std::string why = "destination " + std::string(foreign) +
                                " refused: it is no address of an outside interface of the router";
        EXPECT_EQ(tk::getError(nat.cmdAddObj(request)), why);
        requester.asker = 0;
        EXPECT_FALSE(tk::isError(nat.cmdAddObj(request)));
        requester.asker = 64002;
    }
}

TEST_F(ProgramsServiceTest, AProgramsRuleMayChangeAfterItsAddressIsGoneButNotWhileThatIsInside) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 8080));
    tk::message change = from({80, 0}, ofId(id));
    change.insert_u32(contract::rulefield::toPortFirst, 8081);
    change.insert_u32(contract::rulefield::toPortLast, 8081);
    const links::LinkAddress held{3, address("198.51.100.1"), address("198.51.100.1"), 24, true};
    world.zones.remove(held);
    EXPECT_EQ(tk::getError(nat.cmdSetObj(change)), "");
    world.hold(2, "198.51.100.1", 24);
    EXPECT_NE(tk::getError(nat.cmdSetObj(change)), "");
}

TEST_F(ProgramsServiceTest, AProgramMakesOnlyDynamicRules) {
    std::uint32_t code = 0;
    std::string text;
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(lasting(80)), &code, &text));
    EXPECT_EQ(code, tk::error::notAllowed);
    EXPECT_EQ(text, "only root may make a rule that is not dynamic");
    EXPECT_EQ(kernel.transactions, 0);
    EXPECT_EQ(outcome(80), "");
}

TEST_F(ProgramsServiceTest, AProgramDoesNotTouchWhatIsNotItsOwn) {
    const std::uint32_t stored = addAsRoot(lasting(1));
    const std::uint32_t ofOther = add(natRequest(2, "192.0.2.2", 2, 6, {1001}));
    for (const std::uint32_t id : {stored, ofOther}) {
        std::uint32_t code = 0;
        std::string text;
        tk::message change = from({80, 0}, ofId(id));
        change.insert_bool(tk::field::disabled, true);
        EXPECT_TRUE(tk::isError(nat.cmdSetObj(change), &code, &text));
        EXPECT_EQ(code, tk::error::notAllowed);
        EXPECT_EQ(text, "the rule is not yours");
        EXPECT_TRUE(tk::isError(nat.cmdRemoveObj(from({80, 0}, ofId(id))), &code));
        EXPECT_EQ(code, tk::error::notAllowed);
    }
    EXPECT_EQ(kernel.elements.size(), 2U);
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({1001}, ofId(ofOther)))));
}

TEST_F(ProgramsServiceTest, RemovingWhatRootRemovedBeforeSucceeds) {
    const std::uint32_t id = add(natRequest(80, "192.0.2.2", 80));
    requester.asker = 0;
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({1002}, ofId(id)))));
    requester.asker = 64002;
    EXPECT_FALSE(tk::isError(nat.cmdRemoveObj(from({80, 0}, ofId(id)))));
}

TEST_F(ProgramsServiceTest, AStoredRuleIsNotThatOfAProgramWithTheNumberOfNobody) {
    const std::uint32_t id = addAsRoot(lasting(1));
    EXPECT_TRUE(tk::isError(nat.cmdRemoveObj(from({0}, ofId(id)))));
}

TEST_F(ProgramsServiceTest, NoProgramGetsAPortOfTheRoutersOwn) {
    listeners.heard.insert({{address("198.51.100.1"), 6, 22}, 3});
    EXPECT_EQ(outcome(22), "tcp 198.51.100.1:22 refused: a service of the router listens there");
    EXPECT_EQ(outcome(22, 17), "");
    EXPECT_EQ(outcome(51820, 17), "external port 51820 refused: it is one of the router's own");
    EXPECT_EQ(kernel.transactions, 1);
    addAsRoot(natRequest(22, "192.0.2.2", 22));
    addAsRoot(natRequest(51820, "192.0.2.2", 1, 17));
}

TEST_F(ProgramsServiceTest, ARuleIsNotMovedToAPortOfTheRoutersOwn) {
    listeners.heard.insert({{address("198.51.100.1"), 6, 22}, 3});
    tk::message change = from({80, 0}, ofId(add(natRequest(80, "192.0.2.2", 80))));
    change.insert_u32(contract::rulefield::dstPortFirst, 22);
    change.insert_u32(contract::rulefield::dstPortLast, 22);
    EXPECT_TRUE(tk::isError(nat.cmdSetObj(change)));
    EXPECT_TRUE(kernel.find("198.51.100.1", 6, 80));
}

TEST_F(ProgramsServiceTest, ADisabledRuleGetsNoPortOfTheRoutersOwnEither) {
    tk::message request = natRequest(51820, "192.0.2.2", 80);
    request.insert_bool(tk::field::disabled, true);
    EXPECT_TRUE(tk::isError(nat.cmdAddObj(request)));
}

TEST_F(ProgramsServiceTest, RootsTestAnswersAsForAProgram) {
    requester.asker = 0;
    const tk::message answer = nat.cmdUnknown(natRequest(51820, "192.0.2.2", 80), contract::testRule);
    EXPECT_EQ(tk::getError(answer), "external port 51820 refused: it is one of the router's own");
}

TEST_F(ProgramsServiceTest, RefusalsAreLoggedAndAFloodOfThemIsCounted) {
    const tk::testing::CapturedOutput output;
    for (int i = 0; i < 100; ++i) (void)outcome(51820);  // only the log counts
    nat.withdraw();                                      // as at the end
    EXPECT_EQ(output.text(),
              "nat: rule of user 64002 refused: external port 51820 refused: it is one of the router's own\n"
              "nat: 99 more rules refused, the last of user 64002: external port 51820 refused: it is one of "
              "the router's own\n");
}

}  // namespace
}  // namespace nat
