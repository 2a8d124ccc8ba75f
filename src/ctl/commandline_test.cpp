// How a command line is read: help, slips and misuse, and where routerd is looked for.

#include "ctl/commandline.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ctl/startadvice.h"
#include "ctl/testing/commandlinetest.h"

namespace ctl {
namespace {

TEST_F(CommandLineTest, AReasonNeverReachesTheTerminalRaw) {
    bus.answer({65}, 7, tk::errorMsg(tk::error::failed, "\x1b[2Jgone\n"));
    EXPECT_EQ(run({"bus", "call", "65", "7"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: \\x1b[2Jgone\\x0a\n");
}

TEST_F(CommandLineTest, SharedOptionsMayStandAnywhere) {
    const std::vector<std::string> calls[] = {
        {"--json", "upnp", "interface", "list"},
        {"upnp", "--json", "interface", "list"},
        {"upnp", "interface", "--json", "list"},
        {"upnp", "interface", "list", "--json"},
        {"--socket", "/a", "upnp", "--socket", "/b", "interface", "list", "--json", "--json"},
    };
    const std::string json = print(calls[0]);
    EXPECT_EQ(json.substr(0, 2), "[{");
    for (const auto& call : calls) {
        out.str("");
        EXPECT_EQ(print(call), json);
    }
}

TEST_F(CommandLineTest, HelpNamesTheArgumentsAsTheUsageDoes) {
    EXPECT_EQ(print({"upnp", "interface", "add", "--help"}),
              R"(Give an interface a role; prints the id of the new item

Usage: tkctl upnp interface add NAME internal|external [KEY=VALUE...] [OPTIONS]

Arguments:
  NAME                        An interface, as "tkctl interface list" shows it
  internal|external           internal: faces the LAN; external: faces the Internet
  [KEY=VALUE...]              disabled=yes|no: keep the item, but do not serve the interface

Options:
  -h,--help                   Print this text and end
  --json                      Print JSON instead of text for people
  --socket FILE               Socket of the bus, instead of /run/tk/bus
  --force                     Make the interface internal even if it is outside

for example: tkctl upnp interface add lan0 internal
)");
    EXPECT_EQ(errors.str(), "");
}

TEST_F(CommandLineTest, HelpOfAGroupListsAllCommandsBelowIt) {
    EXPECT_EQ(print({"upnp", "--help"}),
              R"(Settings of UPnP, the interfaces that it serves, and the ports that it maps

Usage: tkctl upnp COMMAND [OPTIONS]

Options:
  -h,--help                   Print this text and end
  --json                      Print JSON instead of text for people
  --socket FILE               Socket of the bus, instead of /run/tk/bus

Commands:
  get                     Show the settings
  set                     Change settings; the others stay unchanged
  mappings                List the ports that hosts in the LAN have mapped, and the traffic that used them
  interface list          List the interfaces that have a role
  interface add           Give an interface a role; prints the id of the new item
  interface set           Change an item; what is not named stays unchanged
  interface remove        Take away an interface's role

)");
}

TEST_F(CommandLineTest, HelpThatCannotBeWrittenIsAFailure) {
    out.setstate(std::ios::badbit);
    EXPECT_EQ(run({"--help"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: cannot write the answer\n");
}

TEST_F(CommandLineTest, AMissingCommandIsAnsweredWithTheKnownOnes) {
    EXPECT_EQ(run({"upnp", "interface"}), Status::misuse);
    EXPECT_EQ(errors.str(), "tkctl: expected one of: list, add, set, remove (--help tells more)\n");
}

TEST_F(CommandLineTest, AnUnknownWordIsAnsweredWithTheKnownOnes) {
    EXPECT_EQ(run({"zzzzzz", "list"}), Status::misuse);
    EXPECT_EQ(errors.str().substr(0, 61), "tkctl: unknown command 'zzzzzz'; there are: setup, status, wa");
}

TEST_F(CommandLineTest, ASlipOfTheFingerIsAnsweredWithTheNearestWord) {
    EXPECT_EQ(run({"upnp", "interfcae", "list"}), Status::misuse);
    EXPECT_EQ(run({"stauts"}), Status::misuse);
    EXPECT_EQ(run({"nat", "list", "--jsno"}), Status::misuse);
    EXPECT_EQ(errors.str(),
              "tkctl: unknown command 'interfcae'; did you mean 'interface'? (--help tells more)\n"
              "tkctl: unknown command 'stauts'; did you mean 'status'? (--help tells more)\n"
              "tkctl: unknown option '--jsno'; did you mean '--json'? (--help tells more)\n");
}

TEST_F(CommandLineTest, HelpTellsOfACommand) {
    const std::string asked = print({"upnp", "set", "--help"});
    out.str("");
    EXPECT_EQ(print({"help", "upnp", "set"}), asked);
    out.str("");
    EXPECT_EQ(print({"help"}), [this] {
        std::ostringstream whole;
        Context context(whole, &bus);
        (void)runCommandLine({"--help"}, context, errors);
        return whole.str();
    }());
    EXPECT_EQ(run({"help", "upnp", "sett"}), Status::misuse);
    EXPECT_EQ(errors.str(), "tkctl: unknown command 'sett'; did you mean 'set'? (--help tells more)\n");
}

struct Slip {
    const char* name;
    std::vector<std::string> arguments;
    const char* reason;
};
const Slip slips[] = {
    {"UnknownCommand", {"nat", "nosuch"}, "unknown command 'nosuch'; there are: list, test"},
    {"UnknownCommandWithHelp",
     {"nat", "nosuch", "--help"},
     "unknown command 'nosuch'; there are: list, test"},
    {"UnknownOption", {"nat", "list", "--nosuch"}, "unknown option '--nosuch'"},
    {"UnknownOptionOfAGroup", {"nat", "-j", "list"}, "unknown option '-j'"},
    {"UnknownOptionWhereAnArgumentIsMissing", {"upnp", "set", "--enabled"}, "unknown option '--enabled'"},
    {"MoreArguments", {"nat", "list", "more"}, "unexpected argument 'more'; usage: tkctl nat list"},
    {"NothingToSet",
     {"upnp", "set"},
     "KEY=VALUE is missing; usage: tkctl upnp set KEY=VALUE...; for example: tkctl upnp set enabled=yes"},
    {"NoInterface",
     {"upnp", "interface", "add"},
     "NAME is missing; usage: tkctl upnp interface add NAME internal|external [KEY=VALUE...]; for example: "
     "tkctl upnp interface add lan0 internal"},
    {"NoType",
     {"upnp", "interface", "add", "lan0"},
     "internal|external is missing; usage: tkctl upnp interface add NAME internal|external [KEY=VALUE...]; "
     "for example: tkctl upnp interface add lan0 internal"},
    {"NothingToSetInAnItem",
     {"upnp", "interface", "set", "4"},
     "KEY=VALUE is missing; usage: tkctl upnp interface set ID KEY=VALUE...; for example: tkctl upnp "
     "interface set 1 disabled=yes"},
    {"NothingToRemove",
     {"upnp", "interface", "remove"},
     "ID is missing; usage: tkctl upnp interface remove ID; for example: tkctl upnp interface remove 1"},
    {"NothingToTest",
     {"nat", "test", "198.51.100.1", "80", "tcp"},
     "TARGET is missing; usage: tkctl nat test ADDRESS PORT PROTOCOL TARGET TARGETPORT; for example: tkctl "
     "nat test 198.51.100.1 80 tcp 192.0.2.2 8080"},
    {"NothingToCall",
     {"bus", "call"},
     "PATH is missing; usage: tkctl bus call PATH COMMAND [FIELD:TYPE=VALUE...]; for example: tkctl bus call "
     "20,5 0xFE0004"},
    {"NoSocket", {"--socket", "", "nat", "list"}, "--socket: expected a FILE"},
};
class SlipTest : public CommandLineTest, public testing::WithParamInterface<Slip> {};
TEST_P(SlipTest, IsExplainedOnOneLine) {
    EXPECT_EQ(run(GetParam().arguments), Status::misuse);
    EXPECT_EQ(errors.str(), std::string("tkctl: ") + GetParam().reason + " (--help tells more)\n");
    EXPECT_EQ(out.str(), "");
}
INSTANTIATE_TEST_SUITE_P(CommandLines, SlipTest, testing::ValuesIn(slips),
                         [](const auto& row) { return std::string(row.param.name); });

class Misuse : public CommandLineTest, public testing::WithParamInterface<std::vector<std::string>> {};
TEST_P(Misuse, AsksNobody) {
    EXPECT_EQ(run(GetParam()), Status::misuse);
    EXPECT_EQ(errors.str().substr(0, 7), "tkctl: ");
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(bus.requests.empty());
}
INSTANTIATE_TEST_SUITE_P(
    Calls, Misuse,
    testing::Values(
        std::vector<std::string>{}, std::vector<std::string>{"nonsense"},
        std::vector<std::string>{"interface"}, std::vector<std::string>{"interface", "list", "more"},
        std::vector<std::string>{"interface", "list", "--unknown"},
        std::vector<std::string>{"nonsense", "--help"},
        std::vector<std::string>{"upnp", "nonsense", "--help"},
        std::vector<std::string>{"upnp", "set", "enable=yes"},
        std::vector<std::string>{"upnp", "interface", "add", "lan0"},
        std::vector<std::string>{"upnp", "interface", "add", "lan0", "inside"},
        std::vector<std::string>{"upnp", "interface", "add", "lan0", "internal", "type=external"},
        std::vector<std::string>{"upnp", "interface", "set", "4"},
        std::vector<std::string>{"upnp", "interface", "set", "lan0", "disabled=yes"},
        std::vector<std::string>{"upnp", "interface", "set", "4", "type=inside"},
        std::vector<std::string>{"upnp", "interface", "remove"},
        std::vector<std::string>{"upnp", "interface", "remove", "-1"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "80", "tcp", "192.0.2.2"},
        std::vector<std::string>{"nat", "test", "wan0", "80", "tcp", "192.0.2.2", "80"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "65536", "tcp", "192.0.2.2", "80"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "-1", "tcp", "192.0.2.2", "80"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "80", "tcp", "192.0.2.2", "65536"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "80", "tcp", "2001:db8::1", "80"},
        std::vector<std::string>{"nat", "test", "198.51.100.256", "80", "tcp", "192.0.2.2", "80"},
        std::vector<std::string>{"nat", "test", "198.51.100.1", "80", "sctp", "192.0.2.2", "80"},
        std::vector<std::string>{"bus", "call", "20"}, std::vector<std::string>{"bus", "call", "20,x", "1"},
        std::vector<std::string>{"bus", "call", "20", "get"},
        std::vector<std::string>{"bus", "call", "20", "1", "1:u32=x"},
        std::vector<std::string>{"bus", "call", "20", "1", "--timeout", "soon"},
        std::vector<std::string>{"bus", "call", "20", "1", "--timeout", "60001"}));

TEST(CommandLine, SaysWhereRouterdWasLookedFor) {
    std::ostringstream out;
    std::ostringstream errors;
    Context context(out);
    EXPECT_EQ(runCommandLine({"--socket", "/nowhere/bus", "interface", "list"}, context, errors),
              Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: cannot reach routerd at /nowhere/bus: it is not running; " +
                                startAdvice("routerd") + "\n");
}

TEST(CommandLine, TheLastSocketCounts) {
    std::ostringstream out;
    std::ostringstream errors;
    Context context(out);
    EXPECT_EQ(runCommandLine(
                  {"--socket", "/a", "nat", "--socket", "/b", "list", "--socket", "/c", "--socket", "/d"},
                  context, errors),
              Status::failed);
    EXPECT_EQ(errors.str(),
              "tkctl: cannot reach routerd at /d: it is not running; " + startAdvice("routerd") + "\n");
}

}  // namespace
}  // namespace ctl
