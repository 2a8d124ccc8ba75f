#include "setup/routertoml.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

const Setting lan{"lan", "interfaces", R"(["lan0"])"};
const Setting ports{"nat", "external-ports", R"(["1024-65535"])"};

RouterToml parsed(const std::string& text) {
    return RouterToml::parse(text, "router.toml").take();
}

/// The text with both settings, or the reason why there is none.
std::string edited(const std::string& text, const std::vector<Setting>& settings = {lan, ports},
                   const std::vector<Program>& programs = {}) {
    const auto result = parsed(text).with({settings, programs, {}});
    return result.isOk() ? *result : "failure: " + result.reason();
}

struct Case {
    const char* name;
    const char* before;
    const char* after;
};
constexpr Case cases[] = {
    {"EmptyGetsItsSections", "",
     "[lan]\ninterfaces = [\"lan0\"]\n\n[nat]\nexternal-ports = [\"1024-65535\"]\n"},
    {"OthersStayAboveNewSections", "# mine\n[router]\nuser = \"routerd\"  # its own\n",
     "# mine\n[router]\nuser = \"routerd\"  # its own\n\n[lan]\ninterfaces = [\"lan0\"]\n"
     "\n[nat]\nexternal-ports = [\"1024-65535\"]\n"},
    {"ANewKeyGoesBelowTheOthersOfItsSection",
     "[lan]\nnetworks = [ # far\n  \"10.0.0.0/8\",\n]\n\n# the rules\n[nat]\nlimit = 7\n\n[[user]]\nname = "
     "\"a\"\n",
     "[lan]\nnetworks = [ # far\n  \"10.0.0.0/8\",\n]\ninterfaces = [\"lan0\"]\n\n# the rules\n[nat]\nlimit "
     "= 7\n"
     "external-ports = [\"1024-65535\"]\n\n[[user]]\nname = \"a\"\n"},
    {"ANewKeyGoesBelowACommentThatShowsIt",
     "[lan]\n# The LAN:\n#interfaces = [\"br0\"]\n# networks = []\n\n[nat]\n  #  external-ports=[]\nlimit = "
     "1\n",
     "[lan]\n# The LAN:\n#interfaces = [\"br0\"]\ninterfaces = [\"lan0\"]\n# networks = []\n\n[nat]\n"
     "  #  external-ports=[]\nexternal-ports = [\"1024-65535\"]\nlimit = 1\n"},
    {"AValueIsReplacedInItsPlace", "[lan]\ninterfaces = [\"ä\", 'b']  # why\n[nat]\nexternal-ports = []\n",
     "[lan]\ninterfaces = [\"lan0\"]  # why\n[nat]\nexternal-ports = [\"1024-65535\"]\n"},
    {"AValueOfSeveralLinesIsReplacedWhole",
     "[nat]\n[lan]\ninterfaces = [\n  \"a#1\",\n  '#',\n] # end\n# last\n",
     "[nat]\nexternal-ports = [\"1024-65535\"]\n[lan]\ninterfaces = [\"lan0\"] # end\n# last\n"},
    {"AListWithCommentsIsLeftToTheAdministrator", "[lan]\ninterfaces = [\n  \"ä\", # one\n]\n",
     "failure: router.toml:2: interfaces: the comments in its list would be lost; write interfaces = "
     "[\"lan0\"] by hand, then try again"},
    {"ACommentBehindTheLastEntryCountsToo", "[lan]\ninterfaces = [\"a\"\n# none else\n]\n",
     "failure: router.toml:2: interfaces: the comments in its list would be lost; write interfaces = "
     "[\"lan0\"] by hand, then try again"},
    {"ALastLineWithoutAnEndGetsOne", "[nat]\nlimit = 1\n[lan]",
     "[nat]\nlimit = 1\nexternal-ports = [\"1024-65535\"]\n[lan]\ninterfaces = [\"lan0\"]\n"},
    {"LineEndsAreKept", "[lan]\r\nnetworks = []\r\n",
     "[lan]\r\nnetworks = []\r\ninterfaces = [\"lan0\"]\r\n\r\n[nat]\r\nexternal-ports = "
     "[\"1024-65535\"]\r\n"},
    {"AnInlineTableIsLeftToTheAdministrator", "\nlan = { networks = [] }\n",
     "failure: router.toml:2: lan: write it as [lan] with its keys below, so that it can be changed"},
    {"DottedKeysAreLeftToTheAdministrator", "lan.networks = []\n",
     "failure: router.toml:1: lan: write it as [lan] with its keys below, so that it can be changed"},
    {"AnOddSectionIsLeftToTheAdministrator", "[[lan]]\nnetworks = []\n",
     "failure: router.toml:1: lan: write it as [lan] with its keys below, so that it can be changed"},
};
class Editing : public testing::TestWithParam<Case> {};
TEST_P(Editing, GivesTheTextAsTabled) {
    EXPECT_EQ(edited(GetParam().before), GetParam().after);
}
INSTANTIATE_TEST_SUITE_P(Texts, Editing, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RouterToml, EditedAgainStaysAsItIs) {
    for (const Case& row : cases) {
        const std::string once = edited(row.before);
        if (once.starts_with("failure")) continue;
        EXPECT_EQ(edited(once), once) << row.name;
    }
}

TEST(RouterToml, ACommentWithinAValueIsNoPlaceForAKey) {
    EXPECT_EQ(edited("[lan]\nnetworks = [\n# interfaces = 1\n]\n", {lan}),
              "[lan]\nnetworks = [\n# interfaces = 1\n]\ninterfaces = [\"lan0\"]\n");
}

TEST(RouterToml, ProgramsGoToTheEnd) {
    EXPECT_EQ(edited("[lan]\n", {lan}, {{80, "unit = \"upnpd.service\"\nstart = true\n"}}),
              "[lan]\ninterfaces = [\"lan0\"]\n\n[[program]]\nnumber = 80\nunit = \"upnpd.service\"\nstart = "
              "true\n");
    EXPECT_EQ(
        edited("[[program]]\nnumber = 14\ncommand = [\"/a\"]\n", {}, {{80, "command = [\"/b\"]\n"}}),
        "[[program]]\nnumber = 14\ncommand = [\"/a\"]\n\n[[program]]\nnumber = 80\ncommand = [\"/b\"]\n");
}

TEST(RouterToml, ProgramsWrittenAsOneListAreLeftToTheAdministrator) {
    EXPECT_TRUE(edited("program = [{number = 14, command = [\"/a\"]}]\n", {}, {{80, "command = [\"/b\"]\n"}})
                    .starts_with("failure: router.toml: cannot be changed"));
}

/// The text with upnpd started by a command, or the reason why there is none.
std::string withCommand(const std::string& text) {
    const auto result = parsed(text).with({{}, {}, {{80, "/usr/sbin/upnpd", "upnpd"}}});
    return result.isOk() ? *result : "failure: " + result.reason();
}

TEST(RouterToml, ACommandTakesThePlaceOfATrigger) {
    EXPECT_EQ(
        withCommand("[[program]]\nnumber = 14\ntrigger = \"/r\"\n\n[[program]]\nnumber = 80\ntrigger = "
                    "\"/u\"  # why\nstart = true\n#command = [\"/a\"] # what\n\n#user = \"u\"\n[lan]\n"),
        "[[program]]\nnumber = 14\ntrigger = \"/r\"\n\n[[program]]\nnumber = 80\n#trigger = \"/u\"  # why\n"
        "start = true\n#command = [\"/a\"] # what\ncommand = [\"/usr/sbin/upnpd\"]\n\n#user = \"u\"\n"
        "user = \"upnpd\"\n[lan]\n");
    EXPECT_EQ(withCommand("[[program]]\ntrigger = \"/u\"\nnumber = 80"),
              "[[program]]\n#trigger = \"/u\"\nnumber = 80\ncommand = [\"/usr/sbin/upnpd\"]\n"
              "user = \"upnpd\"\n");
}

TEST(RouterToml, ATriggerInAListOfOneLineIsLeftToTheAdministrator) {
    EXPECT_EQ(
        withCommand("program = [{number = 80, trigger = \"/u\"}]\n"),
        "failure: router.toml:1: program: write it as [[program]] with its keys below, so that it can be "
        "changed");
}

TEST(RouterToml, TellsWhatItSays) {
    const RouterToml file = parsed("[lan]\ninterfaces = [\"a\", \"b\"]\n[[program]]\nnumber = 80\n");
    EXPECT_EQ(**file.lanInterfaces(), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(file.has("lan", "interfaces"));
    EXPECT_FALSE(file.has("lan", "networks"));
    EXPECT_FALSE(file.has("nat", "limit"));
    EXPECT_TRUE(file.hasProgram(80));
    EXPECT_FALSE(file.hasProgram(14));
    const RouterToml other = parsed("[[program]]\nnumber = 80\ntrigger = \"/u\"\n");
    EXPECT_TRUE(other.hasTrigger(80, "/u"));
    EXPECT_FALSE(other.hasTrigger(80, "/v"));
    EXPECT_FALSE(other.hasTrigger(14, "/u"));
    EXPECT_EQ(*parsed("").lanInterfaces(), std::nullopt);
    EXPECT_FALSE(parsed("").hasProgram(80));
}

TEST(RouterToml, SaysWhereItIsBroken) {
    const auto broken = RouterToml::parse("[lan]\ninterfaces = [\n[nat]\n", "router.toml");
    ASSERT_FALSE(broken.isOk());
    EXPECT_TRUE(broken.reason().starts_with("router.toml:3: ")) << broken.reason();
    EXPECT_TRUE(RouterToml::parse("[;lan]\n", "router.toml").reason().starts_with("router.toml:1: "));
    EXPECT_EQ(parsed("\n[lan]\ninterfaces = [1]\n").lanInterfaces().reason(),
              "router.toml:3: interfaces: must be a list of interfaces, such as \"lan0\"");
}

}  // namespace
}  // namespace setup
