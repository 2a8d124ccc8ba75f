// Whole commands: what the administrator types, what the services are asked, and what is printed.

#include "ctl/commandline.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <sstream>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/fieldspec.h"
#include "ctl/startadvice.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

using tk::testing::listOf;

struct CommandLineTest : testing::Test {
    CommandLineTest() {
        bus.answer({20, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=1", "0x10001:u32=1", "0x10003:u32=0", "0x10004:u32=2",
                                        "0x10005:string=lan0", "0x10006:string=Home\n", "0xFE000A:bool=no",
                                        "0x1000E:bool=yes"}),
                           parseFields({"0xFE0001:u32=2", "0x10001:u32=512", "0x10004:u32=3",
                                        "0x10005:string=list", "0xFE000A:bool=yes", "0x1000E:bool=no"})}));
        bus.answer({20, 1}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=2", "1:be32=198.51.100.1", "5:u32=2"})}));
        bus.answer({80, 0}, tk::command::get, parseFields({"1:bool=no", "2:bool=no", "3:bool=yes"}));
        bus.answer({80, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=4", "0xFE000A:bool=no", "1:u32=1", "2:u32=2"}),
                           parseFields({"0xFE0001:u32=7", "0xFE000A:bool=yes", "1:u32=9", "2:u32=1"})}));
    }

    Status run(const std::vector<std::string>& arguments) {
        Context context(out, &bus);
        return runCommandLine(arguments, context, errors);
    }
    /// The output of a command that must succeed.
    std::string print(const std::vector<std::string>& arguments) {
        EXPECT_EQ(run(arguments), Status::done) << errors.str();
        return out.str();
    }
    /// A command's only request to upnpd, without its destination.
    tk::message sent(std::uint32_t command) {
        const auto requests = bus.requestsTo(contract::path::gateway(), command);
        EXPECT_EQ(requests.size(), 1U);
        return requests.empty() ? tk::message() : tk::withoutRouting(requests[0].content);
    }

    tk::testing::ScriptedBus bus;
    std::ostringstream out;
    std::ostringstream errors;
};

TEST_F(CommandLineTest, InterfaceListAsJson) {
    EXPECT_EQ(
        print({"interface", "list", "--json"}),
        R"([{"id":1,"name":"lan0","displayName":"Home\n","index":2,"type":1,"disabled":false,"running":true},)"
        R"({"id":2,"name":"list","displayName":"list","index":3,"type":512,"disabled":true,"running":false}])"
        "\n");
}

TEST_F(CommandLineTest, InterfaceListAsTable) {
    EXPECT_EQ(print({"interface", "list"}),
              "ID  NAME  DISPLAY NAME  INDEX  TYPE  DISABLED  RUNNING\n"
              "1   lan0  Home\\x0a      2      1     no        yes\n"
              "2   list  list          3      512   yes       no\n");
}

TEST_F(CommandLineTest, AddressList) {
    bus.answer(
        {20, 1}, tk::command::getAll,
        listOf({parseFields({"0xFE0001:u32=1", "1:be32=192.0.2.1", "5:u32=1", "0xFE000A:bool=no"}),
                parseFields({"0xFE0001:u32=2", "1:be32=198.51.100.1", "10:u32=6", "0xFE000A:bool=yes"})}));
    EXPECT_EQ(print({"--json", "address", "list"}),
              R"([{"id":1,"address":"192.0.2.1","interface":1,"disabled":false},)"
              R"({"id":2,"address":"198.51.100.1","interface":6,"disabled":true}])"
              "\n");
    out.str("");
    EXPECT_EQ(print({"address", "list"}),
              "ID  ADDRESS       INTERFACE  DISABLED\n"
              "1   192.0.2.1     lan0       no\n"
              "2   198.51.100.1  6          yes\n");
}

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

TEST_F(CommandLineTest, NatList) {
    const auto record = [](bool isDynamic, const std::vector<std::string>& more) {
        std::vector<std::string> fields = {"0xFE0001:u32=1",
                                           std::string("0xFE0007:bool=") + (isDynamic ? "yes" : "no"),
                                           "0xFE000A:bool=no",
                                           "39:string=dstnat",
                                           "52:be32=198.51.100.1",
                                           "9:u32=80",
                                           "11:u32=6",
                                           "1000:be32=192.0.2.2",
                                           "1002:u32=8080"};
        fields.insert(fields.end(), more.begin(), more.end());
        return parseFields(fields);
    };
    bus.answer({20, 5}, tk::command::getAll,
               listOf({record(true, {"1102:u32=80", "1100:u64=12", "1101:u64=5000000000"}),
                       record(false, {"1100:u64=0", "1101:u64=0"})}));
    const std::string place = R"("chain":"dstnat","dstAddress":"198.51.100.1","protocol":"tcp","dstPort":80,)"
                              R"("toAddress":"192.0.2.2","toPort":8080,)";
    EXPECT_EQ(print({"nat", "list", "--json"}), R"([{"id":1,"disabled":false,"dynamic":true,)" + place +
                                                    R"("owner":80,"packets":12,"bytes":5000000000},)" +
                                                    R"({"id":1,"disabled":false,"dynamic":false,)" + place +
                                                    R"("packets":0,"bytes":0}])" + "\n");
    out.str("");
    EXPECT_EQ(print({"nat", "list"}),
              "ID  PROTOCOL  FROM             TO              DISABLED  OWNER  PACKETS  BYTES\n"
              "1   tcp       198.51.100.1:80  192.0.2.2:8080  no        upnpd  12       5000000000\n"
              "1   tcp       198.51.100.1:80  192.0.2.2:8080  no        -      0        0\n");
    for (const auto& request : bus.requestsTo({20, 5}, tk::command::getAll))
        EXPECT_EQ(request.content.get_u32(tk::field::options), 256U);
}

TEST_F(CommandLineTest, NatTestAsksAndChangesNothing) {
    bus.answer({20, 5}, 2, tk::message());
    EXPECT_EQ(print({"nat", "test", "198.51.100.1", "80", "tcp", "192.0.2.2", "8080"}), "allowed\n");
    EXPECT_EQ(bus.requests.size(), 1U);
    ASSERT_EQ(bus.requestsTo({20, 5}, 2).size(), 1U);
    tk::message asked = bus.requestsTo({20, 5}, 2).at(0).content;
    asked.remove(tk::field::destination);
    EXPECT_EQ(asked, parseFields({"0xFE0007:bool=yes", "0xFE000A:bool=no", "39:string=dstnat",
                                  "52:be32=198.51.100.1", "9:u32=80", "11:u32=6", "40:u32=22",
                                  "1000:be32=192.0.2.2", "1002:u32=8080"}));
}

TEST_F(CommandLineTest, NatTestTellsWhyARuleIsRefused) {
    bus.answer({20, 5}, 2, tk::errorMsg(tk::error::refused, "target 127.0.0.1 refused"));
    EXPECT_EQ(run({"nat", "test", "198.51.100.1", "80", "udp", "127.0.0.1", "8080"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: target 127.0.0.1 refused\n");
}

TEST_F(CommandLineTest, NatTestAsksForPort0Too) {
    EXPECT_EQ(print({"nat", "test", "198.51.100.1", "0", "tcp", "192.0.2.2", "0"}), "allowed\n");
    EXPECT_EQ(errors.str(), "");
}

TEST_F(CommandLineTest, ReloadNamesWhatHasChanged) {
    bus.answer({0}, tk::command::hubReload, tk::message());
    EXPECT_EQ(print({"reload"}), "nothing has changed\n");
    out.str("");
    EXPECT_EQ(print({"reload", "--json"}), "{\"changed\":[]}\n");
    out.str("");
    bus.answer({0}, tk::command::hubReload,
               parseFields({R"(1:message[]=[[{"id":1,"type":"string","value":"lan"}],)"
                            R"([{"id":1,"type":"string","value":"nat"}]])"}));
    EXPECT_EQ(print({"reload"}), "changed: lan, nat\n");
    out.str("");
    EXPECT_EQ(print({"reload", "--json"}), R"({"changed":["lan","nat"]})"
                                           "\n");
}

TEST_F(CommandLineTest, HistoryUndo) {
    bus.answer({24}, 2, parseFields({"0xFE0001:u32=7", "3:string=upnp config changed"}));
    EXPECT_EQ(print({"history", "undo"}), "undone: upnp config changed\n");
    out.str("");
    EXPECT_EQ(print({"history", "undo", "--json"}), R"({"id":7,"description":"upnp config changed"})"
                                                    "\n");
}

TEST_F(CommandLineTest, HistoryList) {
    bus.answer({24}, tk::command::getAll,
               listOf({parseFields(
                   {"0xFE0001:u32=1", "3:string=upnp config changed", "4:u32=80", "5:u64=1767323045"})}));
    EXPECT_EQ(print({"history", "list", "--json"}),
              R"([{"id":1,"description":"upnp config changed","program":80,"time":"2026-01-02T03:04:05Z"}])"
              "\n");
    out.str("");
    EXPECT_EQ(print({"history", "list"}),
              "ID  TIME                  PROGRAM  DESCRIPTION\n"
              "1   2026-01-02T03:04:05Z  80       upnp config changed\n");
}

TEST_F(CommandLineTest, BusCallSendsTheFieldsAndPrintsTheReply) {
    bus.answer({20, 5}, 0xFE0002, parseFields({"39:string=dstnat", "11:u32=6"}));
    EXPECT_EQ(print({"bus", "call", "0x14,5", "0xFE0002", "0xFE0001:u32=7", "9999:string=x"}),
              "0x27:string=\"dstnat\"\n0xb:u32=6\n");
    const auto requests = bus.requestsTo({20, 5}, 0xFE0002);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(tk::withoutRouting(requests[0].content), parseFields({"0xFE0001:u32=7", "9999:string=x"}));
}

TEST_F(CommandLineTest, BusCallWithJsonPrintsAnErrorToo) {
    bus.answer({65}, 7, tk::errorMsg(tk::error::noSuchCommand, "no such command"));
    EXPECT_EQ(run({"bus", "call", "65", "7", "--json"}), Status::failed);
    EXPECT_EQ(errors.str(), "tkctl: no such command\n");
    const Json object = Json::parse(out.str());
    EXPECT_EQ(object["kind"], "error");
    EXPECT_EQ(object["code"], "0xfe0002");
    EXPECT_EQ(object["text"], "no such command");
}

TEST_F(CommandLineTest, BusCallWaitsAsLongAsItIsTold) {
    EXPECT_EQ(run({"bus", "call", "65", "7", "--timeout", "250"}), Status::done);
    EXPECT_EQ(bus.requests.at(0).timeout, 250U);
    EXPECT_EQ(run({"bus", "call", "65", "7", "--timeout", "60000"}), Status::done);
    EXPECT_EQ(bus.requests.at(1).timeout, 60000U);
}

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

/// The words that may follow others, as completion offers them.
struct CompletionTest : CommandLineTest {
    std::vector<std::string> offered(std::vector<std::string> words) {
        words.insert(words.begin(), "__complete");
        out.str("");
        EXPECT_EQ(run(words), Status::done) << errors.str();
        std::vector<std::string> found;
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);) found.push_back(line.substr(0, line.find('\t')));
        return found;
    }
    using Words = std::vector<std::string>;
};

TEST_F(CompletionTest, OffersTheWordsOfAGroup) {
    EXPECT_EQ(offered({"upnp", "interface", ""}), (Words{"list", "add", "set", "remove"}));
    EXPECT_EQ(offered({"upnp", "interface", "l"}), Words{"list"});
    EXPECT_EQ(offered({"st"}), Words{"status"});
    EXPECT_EQ(offered({"--json", "st"}), Words{"status"});
    EXPECT_EQ(offered({"help", "upnp", "s"}), Words{"set"});
}

TEST_F(CompletionTest, OffersOptionsOnceADashIsTyped) {
    EXPECT_EQ(offered({"upnp", "interface", "add", "--"}),
              (Words{"--help", "--json", "--socket", "--force"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "--f"}), Words{"--force"});
}

TEST_F(CompletionTest, OffersTheRoutersInterfaces) {
    EXPECT_EQ(offered({"upnp", "interface", "add", ""}), (Words{"lan0", "list"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "--force", "la"}), Words{"lan0"});
    EXPECT_EQ(offered({"upnp", "interface", "set", "4", "interface="}),
              (Words{"interface=lan0", "interface=list"}));
}

TEST_F(CompletionTest, OffersTheMachinesInterfacesForSetup) {
    Words names;
    struct if_nameindex* const all = ::if_nameindex();
    ASSERT_NE(all, nullptr);
    for (const struct if_nameindex* entry = all; entry->if_index != 0; ++entry)
        if (entry->if_name != std::string("lo")) names.emplace_back(entry->if_name);
    ::if_freenameindex(all);
    EXPECT_EQ(offered({"setup", "--lan", ""}), names);
    EXPECT_EQ(offered({"setup", "--yes", "--wan", ""}), names);
    EXPECT_EQ(offered({"setup", "--config", ""}), Words{});
}

TEST_F(CompletionTest, OffersWhatAnArgumentCanBe) {
    EXPECT_EQ(offered({"upnp", "interface", "add", "lan0", ""}), (Words{"internal", "external"}));
    EXPECT_EQ(offered({"upnp", "interface", "add", "lan0", "internal", ""}),
              (Words{"disabled=yes", "disabled=no"}));
    EXPECT_EQ(offered({"upnp", "set", "enabled=yes", "show-dummy-rule=n"}), Words{"show-dummy-rule=no"});
    EXPECT_EQ(offered({"nat", "test", "198.51.100.1", "80", ""}), (Words{"tcp", "udp"}));
}

TEST_F(CompletionTest, OffersNothingWhereNothingIsKnown) {
    EXPECT_EQ(offered({"bus", "call", ""}), Words{});
    EXPECT_EQ(offered({"nonsense", ""}), Words{});
    EXPECT_EQ(offered({"nat", "list", ""}), Words{});
    EXPECT_EQ(offered({"upnp", "--socket", ""}), Words{});
}

TEST_F(CompletionTest, SaysWhatACommandDoes) {
    EXPECT_EQ(run({"__complete", "upnp", "g"}), Status::done);
    EXPECT_EQ(out.str(), "get\tShow the settings\n");
}

TEST_F(CompletionTest, FailsSilentlyWithoutARouter) {
    std::ostringstream printed;
    Context lonely(printed);
    EXPECT_EQ(runCommandLine({"__complete", "--socket", "/nowhere/bus", "upnp", "interface", "add", ""},
                             lonely, errors),
              Status::done);
    EXPECT_EQ(printed.str() + errors.str(), "");
}

TEST_F(CompletionTest, EveryCommandHasAnExampleInItsHelp) {
    std::vector<Words> left{{}};
    std::size_t commands = 0;
    while (!left.empty()) {
        Words words = left.back();
        left.pop_back();
        words.push_back("");
        const Words below = offered(words);
        words.pop_back();
        out.str("");
        Words help = words;
        help.push_back("--help");
        ASSERT_EQ(run(help), Status::done) << errors.str();
        const std::string text = out.str();
        if (text.find(" COMMAND [OPTIONS]") != std::string::npos) {
            for (const std::string& word : below) {
                left.push_back(words);
                left.back().push_back(word);
            }
            continue;
        }
        ++commands;
        std::string called = "tkctl";
        for (const std::string& word : words) called += ' ' + word;
        EXPECT_NE(text.find("\nfor example: " + called), std::string::npos) << text;
    }
    EXPECT_GE(commands, 16U);
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
