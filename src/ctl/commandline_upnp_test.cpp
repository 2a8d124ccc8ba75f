// Commands about UPnP: what upnpd is asked, and what is printed.

#include "ctl/commandline.h"

#include <string>

#include <gtest/gtest.h>

#include "ctl/testing/commandlinetest.h"

namespace ctl {
namespace {

TEST_F(CommandLineTest, UpnpGet) {
    EXPECT_EQ(print({"upnp", "get", "--json"}),
              R"({"enabled":false,"allow-disable-external":false,"show-dummy-rule":true})"
              "\n");
    out.str("");
    EXPECT_EQ(print({"upnp", "get"}),
              "SETTING                 VALUE\n"
              "enabled                 no\n"
              "allow-disable-external  no\n"
              "show-dummy-rule         yes\n");
}

TEST_F(CommandLineTest, UpnpSetSendsAllThreeSettings) {
    EXPECT_EQ(print({"upnp", "set", "enabled=yes"}), "");
    EXPECT_EQ(sent(tk::command::set), parseFields({"1:bool=yes", "2:bool=no", "3:bool=yes"}));
}

TEST_F(CommandLineTest, UpnpSetWithNothingToSetIsMisuse) {
    EXPECT_EQ(run({"upnp", "set"}), Status::misuse);
    EXPECT_EQ(run({"upnp", "set", "enabled=maybe"}), Status::misuse);
    EXPECT_TRUE(bus.requests.empty());
}

TEST_F(CommandLineTest, UpnpInterfaceList) {
    EXPECT_EQ(print({"upnp", "interface", "list", "--json"}),
              R"([{"id":4,"interface":1,"name":"lan0","type":"internal","disabled":false},)"
              R"({"id":7,"interface":9,"name":"","type":"external","disabled":true}])"
              "\n");
    out.str("");
    EXPECT_EQ(print({"upnp", "interface", "list"}),
              "ID  INTERFACE   TYPE      DISABLED\n"
              "4   lan0        internal  no\n"
              "7   9 (absent)  external  yes\n");
}

TEST_F(CommandLineTest, UpnpInterfaceAddPrintsTheNewId) {
    bus.answer({80, 0}, tk::command::addObject, parseFields({"0xFE0001:u32=5"}));
    EXPECT_EQ(print({"upnp", "interface", "add", "lan0", "internal"}), "5\n");
    EXPECT_EQ(sent(tk::command::addObject), parseFields({"0xFE000A:bool=no", "1:u32=1", "2:u32=2"}));
}

struct OutsideTest : CommandLineTest {
    OutsideTest() {
        bus.answer({20, 0}, 2, [](const tk::message& request) {
            const bool isLan = request.get_u32(1) == 1;
            return parseFields({isLan ? "1:u32=1" : "1:u32=2",
                                isLan ? "2:string=it is home" : "2:string=it carries a route to 0.0.0.0/0"});
        });
        bus.answer({80, 0}, tk::command::addObject, parseFields({"0xFE0001:u32=5"}));
    }
    /// How often upnpd was asked to change something.
    std::size_t changes() const {
        return bus.requestsTo(contract::path::gateway(), tk::command::addObject).size() +
               bus.requestsTo(contract::path::gateway(), tk::command::setObject).size();
    }
    static constexpr const char* refusal =
        "tkctl: list is outside: it carries a route to 0.0.0.0/0; --force makes it internal anyway\n";
};

TEST_F(OutsideTest, IsNotMadeInternal) {
    EXPECT_EQ(run({"upnp", "interface", "add", "list", "internal"}), Status::failed);
    EXPECT_EQ(errors.str(), refusal);
    EXPECT_EQ(changes(), 0U);
}

TEST_F(OutsideTest, IsMadeInternalByForce) {
    EXPECT_EQ(print({"upnp", "interface", "add", "list", "internal", "--force"}), "5\n");
    EXPECT_EQ(print({"upnp", "interface", "set", "4", "interface=list", "--force"}), "5\n");
}

TEST_F(OutsideTest, AnyOtherRoleIsGiven) {
    EXPECT_EQ(print({"upnp", "interface", "add", "list", "external"}), "5\n");
    EXPECT_EQ(print({"upnp", "interface", "add", "lan0", "internal"}), "5\n5\n");
}

TEST_F(OutsideTest, AnItemIsNotMadeInternalByAChangeOfEitherHalf) {
    EXPECT_EQ(run({"upnp", "interface", "set", "4", "interface=list"}), Status::failed);
    EXPECT_EQ(errors.str(), refusal);
    errors.str("");
    EXPECT_EQ(run({"upnp", "interface", "set", "4", "interface=list", "type=internal"}), Status::failed);
    EXPECT_EQ(errors.str(), refusal);
    EXPECT_EQ(run({"upnp", "interface", "set", "7", "type=internal"}), Status::failed) << "an absent one";
    EXPECT_EQ(changes(), 0U);
    EXPECT_EQ(run({"upnp", "interface", "set", "4", "interface=list", "type=external"}), Status::done);
    EXPECT_EQ(run({"upnp", "interface", "set", "4", "disabled=yes"}), Status::done);
}

TEST_F(OutsideTest, ARouterThatCannotTellDoesNotPreventIt) {
    bus.answer({20, 0}, 2, tk::errorMsg(tk::error::noSuchCommand, "no such command"));
    EXPECT_EQ(print({"upnp", "interface", "add", "list", "internal"}), "5\n");
}

TEST_F(CommandLineTest, UpnpInterfaceAddTakesNamesThatAreSpeltLikeCommands) {
    bus.answer({80, 0}, tk::command::addObject, parseFields({"0xFE0001:u32=6"}));
    EXPECT_EQ(print({"upnp", "interface", "add", "list", "external", "disabled=yes", "--json"}),
              "{\"id\":6}\n");
    EXPECT_EQ(sent(tk::command::addObject), parseFields({"0xFE000A:bool=yes", "1:u32=2", "2:u32=1"}));
}

TEST_F(CommandLineTest, UpnpInterfaceAddOfAnUnknownNameListsTheKnownOnes) {
    EXPECT_EQ(run({"upnp", "interface", "add", "eth9", "internal"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: there is no interface 'eth9'; there are: lan0, list\n");
    EXPECT_TRUE(bus.requestsTo(contract::path::gateway(), tk::command::addObject).empty());
}

TEST_F(CommandLineTest, UpnpInterfaceAddThatIsRefused) {
    bus.answer({80, 0}, tk::command::addObject, tk::errorMsg(tk::error::exists, "Interface already added"));
    EXPECT_EQ(run({"upnp", "interface", "add", "lan0", "internal"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: Interface already added; it is internal already, by item 4\n");
    EXPECT_EQ(out.str(), "");
}

TEST_F(CommandLineTest, UpnpInterfaceAddOfAnotherRoleTellsHowToChangeIt) {
    bus.answer({80, 0}, tk::command::addObject, tk::errorMsg(tk::error::exists, "Interface already added"));
    EXPECT_EQ(run({"upnp", "interface", "add", "lan0", "external"}), Status::failed);
    EXPECT_EQ(errors.str(),
              "tkctl: Interface already added; change it: tkctl upnp interface set 4 type=external\n");
}

TEST_F(CommandLineTest, UpnpInterfaceSetSendsOnlyWhatIsNamed) {
    EXPECT_EQ(print({"upnp", "interface", "set", "4", "disabled=yes"}), "");
    EXPECT_EQ(sent(tk::command::setObject), parseFields({"0xFE0001:u32=4", "0xFE000A:bool=yes"}));
}

TEST_F(CommandLineTest, UpnpInterfaceSetOfEverything) {
    EXPECT_EQ(print({"upnp", "interface", "set", "4", "interface=list", "type=external", "disabled=no"}), "");
    EXPECT_EQ(sent(tk::command::setObject),
              parseFields({"0xFE0001:u32=4", "0xFE000A:bool=no", "2:u32=1", "1:u32=2"}));
}

TEST_F(CommandLineTest, UpnpInterfaceRemove) {
    EXPECT_EQ(print({"upnp", "interface", "remove", "4"}), "");
    EXPECT_EQ(sent(tk::command::removeObject), parseFields({"0xFE0001:u32=4"}));
}

TEST_F(CommandLineTest, AnItemThatIsNotThereIsNamed) {
    const tk::message gone = tk::errorMsg(tk::error::noSuchObject, "no such object");
    bus.answer({80, 0}, tk::command::removeObject, gone);
    bus.answer({80, 0}, tk::command::setObject, gone);
    const std::string reason = "tkctl: there is no item 99; \"tkctl upnp interface list\" lists the items\n";
    EXPECT_EQ(run({"upnp", "interface", "remove", "99"}), Status::failed);
    EXPECT_EQ(run({"upnp", "interface", "set", "99", "disabled=yes"}), Status::failed);
    EXPECT_EQ(errors.str(), reason + reason);
}

}  // namespace
}  // namespace ctl
