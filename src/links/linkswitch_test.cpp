#include "links/linkswitch.h"

#include <signal.h>

#include <gtest/gtest.h>

#include "hub/testing/fakeprocesses.h"
#include "links/testing/fakekernel.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"

namespace links {
namespace {

constexpr uid_t daemonUser = 998;

class LinkSwitchTest : public ::testing::Test {
protected:
    static Link link(const char* name) {
        Link made;
        made.index = 3;
        made.name = name;
        return made;
    }
    /// The immediate result: "done", the error's text, or "later".
    std::string set(const char* name, bool up, uid_t user = 0) {
        const auto done = [this](tk::message outcome) { later.push_back(textOf(outcome)); };
        const auto outcome = links.set(link(name), up, user, done);
        return outcome ? textOf(*outcome) : "later";
    }
    static std::string textOf(const tk::message& outcome) {
        return tk::isError(outcome) ? tk::getError(outcome) : "done";
    }
    using Texts = std::vector<std::string>;
    using Switched = std::vector<std::pair<std::uint32_t, bool>>;

    tk::testing::TestLoop loop;
    const tk::testing::CapturedOutput output;
    testing::FakeNetwork network;
    hub::testing::FakeProcesses processes;
    LinkSwitch links{{{"wan0", true, {}, {}},
                      {"wan1", false, {}, {}},
                      {"ppp0", true, {"/sbin/ifdown", "ppp0"}, {"/sbin/ifup", "ppp0"}},
                      {"ppp1", false, {"/sbin/ifdown", "ppp1"}, {}}},
                     network,
                     processes};
    Texts later;
};

TEST_F(LinkSwitchTest, RootMayAlways) {
    EXPECT_EQ(set("wan0", false), "done");
    EXPECT_EQ(set("wan1", true), "done");
    EXPECT_EQ(set("lan0", false), "done");
    EXPECT_EQ(network.switched, (Switched{{3, false}, {3, true}, {3, false}}));
    EXPECT_EQ(output.text(),
              "interface wan0 down for user 0\n"
              "interface wan1 up for user 0\n"
              "interface lan0 down for user 0\n");
}

TEST_F(LinkSwitchTest, OthersMayWhereTheConfigurationAllowsIt) {
    EXPECT_EQ(set("wan0", false, daemonUser), "done");
    EXPECT_EQ(network.switched, (Switched{{3, false}}));
    EXPECT_EQ(set("wan1", false, daemonUser),
              "user 998 may not set wan1 down: no [[interface]] with terminate allows it");
    EXPECT_EQ(set("lan0", true, daemonUser),
              "user 998 may not set lan0 up: no [[interface]] with terminate allows it");
    EXPECT_EQ(set("ppp1", false, daemonUser),
              "user 998 may not set ppp1 down: no [[interface]] with terminate allows it");
    EXPECT_EQ(network.switched.size(), 1U);
    EXPECT_TRUE(processes.started.empty());
    EXPECT_EQ(
        output.text(),
        "interface wan0 down for user 998\n"
        "interfaces: request of user 998 refused: user 998 may not set wan1 down: no [[interface]] with "
        "terminate allows it\n")
        << "further ones are counted";
}

TEST_F(LinkSwitchTest, ACommandTakesTheFlagsPlaceAndItsEndIsTheAnswer) {
    EXPECT_EQ(set("ppp0", false, daemonUser), "later");
    EXPECT_EQ(processes.started, Texts{"/sbin/ifdown"});
    processes.end(0);
    loop.settle();
    EXPECT_EQ(later, Texts{"done"});
    EXPECT_EQ(set("ppp0", true, daemonUser), "later");
    processes.end(256);  // status 1
    loop.settle();
    EXPECT_EQ(later, (Texts{"done", "/sbin/ifup ended with status 1"}));
    EXPECT_TRUE(network.switched.empty());
    EXPECT_EQ(output.text(),
              "interface ppp0 down for user 998: /sbin/ifdown started\n"
              "interface ppp0: /sbin/ifdown ended with status 0\n"
              "interface ppp0 up for user 998: /sbin/ifup started\n"
              "interface ppp0: /sbin/ifup ended with status 1\n");
}

TEST_F(LinkSwitchTest, RootUsesTheCommandToo) {
    EXPECT_EQ(set("ppp1", false), "later");
    EXPECT_EQ(set("ppp1", true), "done") << "there is no command for this";
    EXPECT_EQ(network.switched, (Switched{{3, true}}));
}

TEST_F(LinkSwitchTest, OneCommandRunsAtATime) {
    EXPECT_EQ(set("ppp0", false, daemonUser), "later");
    EXPECT_EQ(set("ppp0", true, daemonUser), "/sbin/ifdown still runs for ppp0");
    EXPECT_EQ(set("ppp1", false), "later") << "that is another interface";
    EXPECT_EQ(processes.started.size(), 2U);
}

TEST_F(LinkSwitchTest, ACommandThatTakesLongIsAnsweredBeforeItsEnd) {
    EXPECT_EQ(set("ppp0", false, daemonUser), "later");
    loop.advance(LinkSwitch::answerTicks - 1);
    EXPECT_EQ(later, Texts{});
    loop.advance(1);
    EXPECT_EQ(later, Texts{"/sbin/ifdown still runs"});
    EXPECT_EQ(set("ppp0", true, daemonUser), "/sbin/ifdown still runs for ppp0");
    processes.end(0);
    loop.settle();
    EXPECT_EQ(later.size(), 1U) << "a request ends once";
    EXPECT_EQ(set("ppp0", true, daemonUser), "later");
}

TEST_F(LinkSwitchTest, FollowsAnotherConfigurationWhileACommandRuns) {
    EXPECT_EQ(set("ppp0", false), "later");
    links.setConfig({{"wan1", true, {}, {}}, {"ppp1", false, {"/sbin/other", "ppp1"}, {}}});
    EXPECT_EQ(set("wan1", false, daemonUser), "done");
    EXPECT_EQ(set("wan0", false, daemonUser),
              "user 998 may not set wan0 down: no [[interface]] with terminate allows it");
    processes.end(0);
    for (int i = 0; i < 5; ++i) loop.looper.turn(0);
    EXPECT_EQ(later, Texts{"done"});
    EXPECT_EQ(set("ppp1", false), "later");
    EXPECT_EQ(processes.started, (Texts{"/sbin/ifdown", "/sbin/other"}));
}

TEST_F(LinkSwitchTest, ACommandThatNeverEndsIsKilled) {
    EXPECT_EQ(set("ppp0", false, daemonUser), "later");
    loop.advance(LinkSwitch::killTicks - 1);
    EXPECT_TRUE(processes.signals.empty());
    loop.advance(1);
    EXPECT_EQ(processes.signals, std::vector<int>{SIGKILL});
    loop.settle();
    EXPECT_EQ(set("ppp0", true, daemonUser), "later");
}

TEST_F(LinkSwitchTest, ACommandThatCannotBeStartedIsAnError) {
    processes.fault = "/sbin/ifdown: No such file or directory";
    EXPECT_EQ(set("ppp0", false, daemonUser), "/sbin/ifdown: No such file or directory");
    EXPECT_EQ(output.text(), "interface ppp0 down for user 998: /sbin/ifdown: No such file or directory\n");
}

TEST_F(LinkSwitchTest, CommandsHaveNumbersOfTheirOwn) {
    const std::vector<hub::ProgramConfig> commands =
        stateCommands({{"ppp0", true, {"/sbin/ifdown", "ppp0"}, {"/sbin/ifup", "ppp0"}}});
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(commands[0].command.front(), "/sbin/ifdown");
    EXPECT_EQ(commands[1].command.front(), "/sbin/ifup");
    EXPECT_NE(commands[0].number, commands[1].number);
    EXPECT_GE(commands[0].number, tk::program::firstClient);
    EXPECT_FALSE(commands[0].user) << "they run as whoever started the router";
}

}  // namespace
}  // namespace links
