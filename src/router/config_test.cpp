#include "router/config.h"

#include <gtest/gtest.h>

namespace router {
namespace {

/// The configuration of a text without faults.
Config configIn(const std::string& text) {
    tk::Result<Config> read = parseConfig(text, "router.toml");
    EXPECT_TRUE(read.isOk()) << read.reason();
    return read.isOk() ? read.take() : Config();
}

TEST(ParseConfig, ReadsPrograms) {
    const Config config = configIn(
        "[[program]]\nnumber = 80\ncommand = [\"/usr/sbin/upnpd\"]\nstart = true\n"
        "[[program]]\nnumber = 14\ncommand = [\"/usr/sbin/resolverd\", \"-v\"]\n");
    EXPECT_EQ(config.programs, (std::vector<hub::ProgramConfig>{{80, {"/usr/sbin/upnpd"}, true},
                                                                {14, {"/usr/sbin/resolverd", "-v"}, false}}));
}

TEST(ParseConfig, AnEmptyTextStartsNothing) {
    EXPECT_EQ(configIn(""), Config());
}

TEST(ParseConfig, ReadsUnits) {
    const std::string longest = std::string(247, 'a') + ".service";
    const Config config = configIn(
        "[[program]]\nnumber = 80\nunit = \"upnpd.service\"\nstart = true\n"
        "[[program]]\nnumber = 14\nunit = 'A-z:0_9\\x2d@b.c.service'\n"
        "[[program]]\nnumber = 15\nunit = \"" +
        longest + "\"\n");
    EXPECT_EQ(config.programs,
              (std::vector<hub::ProgramConfig>{{80, {}, true, {}, "upnpd.service"},
                                               {14, {}, false, {}, "A-z:0_9\\x2d@b.c.service"},
                                               {15, {}, false, {}, longest}}));
    EXPECT_TRUE(config.runners.empty()) << "who may register is a matter of [[user]]";
}

TEST(ParseConfig, AUnitOfMoreThan255CharactersIsRefused) {
    const std::string tooLong = std::string(248, 'a') + ".service";
    EXPECT_EQ(parseConfig("[[program]]\nunit = \"" + tooLong + "\"\n", "r.toml").reason(),
              "r.toml:2: unit: must be the name of a service, such as \"upnpd.service\"");
}

TEST(ParseConfig, ReadsTriggers) {
    const Config config =
        configIn("[[program]]\nnumber = 80\ntrigger = \"/run/tk/start/upnpd\"\nstart = true\n");
    EXPECT_EQ(config.programs,
              (std::vector<hub::ProgramConfig>{{80, {}, true, {}, {}, "/run/tk/start/upnpd"}}));
    EXPECT_TRUE(config.runners.empty()) << "who may register is a matter of [[user]]";
}

TEST(ParseConfig, ReadsEveryKey) {
    const Config config = configIn(
        "[router]\nuser = \"nobody\"\n"
        "[[program]]\nnumber = 80\ncommand = [\"/a\"]\nuser = \"daemon\"\n"
        "[[user]]\nname = \"daemon\"\nprograms = [80, 81]\nwrites = [\"20,5\", \"20\", 21]\n"
        "trace = true\nundo = true\nadmin = true\n"
        "[lan]\ninterfaces = [\"lan0\", \"br-lan\"]\n"
        "networks = [\"10.0.0.0/8\", \"192.0.2.1/32\", \"0.0.0.0/0\"]\n"
        "[[interface]]\nname = \"ppp0\"\nterminate = true\n"
        "down = [\"/sbin/ifdown\", \"ppp0\"]\nup = [\"/sbin/ifup\", \"ppp0\"]\n"
        "[nat]\ncheck-targets = false\n"
        "external-ports = [80, \"1024-65535\"]\ninternal-ports = [\"22\"]\nlimit-per-client = 3\nlimit = 4\n"
        "router-ports = [51820, \"8000-8010\"]\n"
        "[guard]\nlimit-connections = false\nsearches-per-second = 5\nrequests-per-second = 6\nconnections = "
        "7\n");
    Config wanted;
    wanted.user = *tk::findAccount("nobody");
    wanted.programs = {{80, {"/a"}, false, *tk::findAccount("daemon")}};
    const uid_t daemon = (*tk::findAccount("daemon"))->uid;
    wanted.runners = {{daemon, {80}}};
    wanted.users = {{daemon, {80, 81}, {{20, 5}, {20}, {21}}, true, true, true}};
    wanted.lan.interfaces = {{"lan0", "br-lan"}};
    wanted.lan.networks = {{0x0A000000, 0xFF000000}, {0xC0000201, 0xFFFFFFFF}, {0, 0}};
    wanted.interfaces = {{"ppp0", true, {"/sbin/ifdown", "ppp0"}, {"/sbin/ifup", "ppp0"}}};
    wanted.nat = {false, {{80, 80}, {1024, 65535}}, {{22, 22}}, 3, 4, {{51820, 51820}, {8000, 8010}}};
    wanted.guard = {false, 5, 6, 7};
    EXPECT_EQ(config, wanted);
}

struct Case {
    const char* name;
    const char* text;
    const char* reason;
};

constexpr Case cases[] = {
    {"UnknownKey", "\nfoo = 1\n", "r.toml:2: foo: unknown key"},
    {"UnknownKeyOfAProgram", "[[program]]\nnumber = 80\ncommand = [\"/a\"]\nhost = 1\n",
     "r.toml:4: host: unknown key"},
    {"NoTable", "program = 3\n", "r.toml:1: program: must be written as [[program]]"},
    {"SingleTable", "[program]\nnumber = 80\n", "r.toml:1: program: must be written as [[program]]"},
    {"NumberZero", "[[program]]\nnumber = 0\n", "r.toml:2: number: must be a number from 1 to 999"},
    {"NumberOfAClient", "[[program]]\nnumber = 1000\n", "r.toml:2: number: must be a number from 1 to 999"},
    {"NumberAsText", "[[program]]\nnumber = \"80\"\n", "r.toml:2: number: must be a number from 1 to 999"},
    {"NumberMissing", "\n[[program]]\ncommand = [\"/a\"]\n", "r.toml:2: number: is missing"},
    {"NumberTwice",
     "[[program]]\nnumber = 8\ncommand = [\"/a\"]\n[[program]]\nnumber = 8\ncommand = [\"/a\"]\n",
     "r.toml:4: number: stands twice"},
    {"CommandMissing", "[[program]]\nnumber = 80\n", "r.toml:1: command: is missing"},
    {"CommandEmpty", "[[program]]\nnumber = 80\ncommand = []\n",
     "r.toml:3: command: must be a list of texts"},
    {"CommandAsText", "[[program]]\nnumber = 80\ncommand = \"/a\"\n",
     "r.toml:3: command: must be a list of texts"},
    {"CommandOfNumbers", "[[program]]\nnumber = 80\ncommand = [1]\n",
     "r.toml:3: command: must be a list of texts"},
    {"CommandWithoutPath", "[[program]]\nnumber = 80\ncommand = [\"a\"]\n",
     "r.toml:3: command: must begin with a full path"},
    {"UnitBesideCommand", "[[program]]\nnumber = 80\nunit = \"a.service\"\ncommand = [\"/a\"]\n",
     "r.toml:3: unit: stands beside command"},
    {"UnitBesideUser", "[[program]]\nnumber = 80\nunit = \"a.service\"\nuser = \"daemon\"\n",
     "r.toml:4: user: stands beside unit, which names its user itself"},
    {"UnitAsList", "[[program]]\nnumber = 80\nunit = [\"a.service\"]\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitEmpty", "[[program]]\nnumber = 80\nunit = \"\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitWithoutName", "[[program]]\nnumber = 80\nunit = \".service\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitOfAnotherKind", "[[program]]\nnumber = 80\nunit = \"upnpd.socket\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitWithASlash", "[[program]]\nnumber = 80\nunit = \"a/b.service\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitWithABlank", "[[program]]\nnumber = 80\nunit = \"a b.service\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"UnitLikeAnOption", "[[program]]\nnumber = 80\nunit = \"--now.service\"\n",
     "r.toml:3: unit: must be the name of a service, such as \"upnpd.service\""},
    {"TriggerBesideCommand", "[[program]]\nnumber = 80\ntrigger = \"/a\"\ncommand = [\"/a\"]\n",
     "r.toml:3: trigger: stands beside command"},
    {"TriggerBesideUnit", "[[program]]\nnumber = 80\nunit = \"a.service\"\ntrigger = \"/a\"\n",
     "r.toml:4: trigger: stands beside unit"},
    {"TriggerBesideUser", "[[program]]\nnumber = 80\ntrigger = \"/a\"\nuser = \"daemon\"\n",
     "r.toml:4: user: stands beside trigger, whose service names its user itself"},
    {"TriggerAsList", "[[program]]\nnumber = 80\ntrigger = [\"/a\"]\n",
     "r.toml:3: trigger: must be the full path of a file, such as \"/run/tk/start/upnpd\""},
    {"TriggerEmpty", "[[program]]\nnumber = 80\ntrigger = \"\"\n",
     "r.toml:3: trigger: must be the full path of a file, such as \"/run/tk/start/upnpd\""},
    {"TriggerWithoutAFullPath", "[[program]]\nnumber = 80\ntrigger = \"start/upnpd\"\n",
     "r.toml:3: trigger: must be the full path of a file, such as \"/run/tk/start/upnpd\""},
    {"TriggerLikeAFolder", "[[program]]\nnumber = 80\ntrigger = \"/run/tk/start/\"\n",
     "r.toml:3: trigger: must be the full path of a file, such as \"/run/tk/start/upnpd\""},
    {"TriggerWithAControlCharacter", "[[program]]\nnumber = 80\ntrigger = \"/a\\u0000b\"\n",
     "r.toml:3: trigger: must be the full path of a file, such as \"/run/tk/start/upnpd\""},
    {"StartAsNumber", "[[program]]\nnumber = 80\ncommand = [\"/a\"]\nstart = 1\n",
     "r.toml:4: start: must be true or false"},
    {"UserOfNobody", "[[program]]\nnumber = 80\nuser = \"no-such-user\"\n",
     "r.toml:3: user: there is no user \"no-such-user\""},
    {"UserAsNumber", "[router]\nuser = 0\n", "r.toml:2: user: must be the name of a user"},
    {"UserWithoutName", "[[user]]\nprograms = [80]\n", "r.toml:1: name: is missing"},
    {"UserOfUnknownKey", "[[user]]\nnames = 1\n", "r.toml:2: names: unknown key"},
    {"UserAsTable", "[user]\nname = \"daemon\"\n", "r.toml:1: user: must be written as [[user]]"},
    {"ProgramsOfText", "[[user]]\nname = \"daemon\"\nprograms = [\"80\"]\n",
     "r.toml:3: programs: must be a number from 1 to 999"},
    {"TraceAsText", "[[user]]\ntrace = \"yes\"\n", "r.toml:2: trace: must be true or false"},
    {"UndoAsNumber", "[[user]]\nundo = 1\n", "r.toml:2: undo: must be true or false"},
    {"AdminAsNumber", "[[user]]\nadmin = 1\n", "r.toml:2: admin: must be true or false"},
    {"WritesAsText", "[[user]]\nwrites = \"20\"\n",
     "r.toml:2: writes: must be a list of paths, such as \"20,5\""},
    {"WritesTooLong", "[[user]]\nwrites = [\"20,5,1\"]\n",
     "r.toml:2: writes: must be a list of paths, such as \"20,5\""},
    {"RouterUnknownKey", "[router]\nusers = 1\n", "r.toml:2: users: unknown key"},
    {"NatAsArray", "[[nat]]\nlimit = 1\n", "r.toml:1: nat: must be written as [nat]"},
    {"NatUnknownKey", "[nat]\nlimits = 1\n", "r.toml:2: limits: unknown key"},
    {"CheckAsText", "[nat]\ncheck-targets = \"yes\"\n", "r.toml:2: check-targets: must be true or false"},
    {"PrefixWithoutLength", "[lan]\nnetworks = [\"192.0.2.0\"]\n",
     "r.toml:2: networks: must be a list of networks, such as \"192.0.2.0/24\""},
    {"PrefixWithHostBits", "[lan]\nnetworks = [\"192.0.2.1/24\"]\n",
     "r.toml:2: networks: must be a list of networks, such as \"192.0.2.0/24\""},
    {"RouterPortTooHigh", "[nat]\nrouter-ports = [65536]\n",
     "r.toml:2: router-ports: must be a list of ports, such as 80 and \"1024-65535\""},
    {"PrefixTooLong", "[lan]\nnetworks = [\"192.0.2.0/33\"]\n",
     "r.toml:2: networks: must be a list of networks, such as \"192.0.2.0/24\""},
    {"PrefixesWhereTheyOnceWere", "[nat]\ninternal-prefixes = []\n",
     "r.toml:2: internal-prefixes: is now \"networks\" in [lan]"},
    {"LanUnknownKey", "[lan]\ninterface = []\n", "r.toml:2: interface: unknown key"},
    {"LanInterfaceAlone", "[lan]\ninterfaces = \"lan0\"\n",
     "r.toml:2: interfaces: must be a list of interfaces, such as \"lan0\""},
    {"LanInterfaceAsNumber", "[lan]\ninterfaces = [0]\n",
     "r.toml:2: interfaces: must be the name of an interface, such as \"eth0\""},
    {"InterfaceWithoutName", "[[interface]]\nterminate = true\n", "r.toml:1: name: is missing"},
    {"InterfaceTwice", "[[interface]]\nname = \"a\"\n[[interface]]\nname = \"a\"\n",
     "r.toml:3: name: stands twice"},
    {"InterfaceOfALongName", "[[interface]]\nname = \"abcdefghijklmnop\"\n",
     "r.toml:2: name: must be the name of an interface, such as \"eth0\""},
    {"InterfaceUnknownKey", "[[interface]]\nname = \"a\"\nstop = []\n", "r.toml:3: stop: unknown key"},
    {"CommandOfAShell", "[[interface]]\nname = \"a\"\ndown = \"/sbin/ifdown a\"\n",
     "r.toml:3: down: must be a list of texts"},
    {"CommandOfAnInterfaceWithoutPath", "[[interface]]\nname = \"a\"\nup = [\"ifup\"]\n",
     "r.toml:3: up: must begin with a full path"},
    {"PortTooHigh", "[nat]\nexternal-ports = [65536]\n",
     "r.toml:2: external-ports: must be a list of ports, such as 80 and \"1024-65535\""},
    {"PortsBackwards", "[nat]\ninternal-ports = [\n80,\n\"9-8\"]\n",
     "r.toml:4: internal-ports: must be a list of ports, such as 80 and \"1024-65535\""},
    {"LimitNegative", "[nat]\nlimit = -1\n", "r.toml:2: limit: must be a number from 0 to 4294967295"},
    {"GuardUnknownKey", "[guard]\nenabled = true\n", "r.toml:2: enabled: unknown key"},
    {"RateTooHigh", "[guard]\nconnections = 1000001\n",
     "r.toml:2: connections: must be a number from 0 to 1000000"},
};

class RefusedConfig : public ::testing::TestWithParam<Case> {};

TEST_P(RefusedConfig, NamesFileLineAndKey) {
    EXPECT_EQ(parseConfig(GetParam().text, "r.toml").reason(), GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedConfig, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ParseConfig, BrokenTextIsRefusedWithItsLine) {
    EXPECT_EQ(parseConfig("\n\n= 3\n", "r.toml").reason().substr(0, 9), "r.toml:3:");
    EXPECT_EQ(parseConfig("\n[;nat]\n", "r.toml").reason().substr(0, 9), "r.toml:2:");
}

TEST(ParseConfig, LettersBeyondAsciiStandOnlyInCommentsAndQuotes) {
    for (const char* text : {"\ngr\u00FC\u00DFe = 1\n", "\n[nat] \u00FC\n", "\n[nat]\u00A0\n",
                             "\na = 1\u30C4\n", "\na = \"\" \u00FC\n"})
        EXPECT_EQ(parseConfig(text, "r.toml").reason().substr(0, 9), "r.toml:2:") << text;
    const tk::Result<Config> config = parseConfig(
        "\xEF\xBB\xBF# \u00FC\n[lan]\ninterfaces = [\"\"\"\\\n\u00FC\"\"\"]  # \u30C4\n", "r.toml");
    ASSERT_TRUE(config.isOk()) << config.reason();
    EXPECT_EQ(config->lan.interfaces, std::vector<std::string>{"\u00FC"});
}

TEST(RunAsRouter, ProgramsWithoutAUserGetTheRoutersOwn) {
    Config config;
    config.user = tk::Account{};
    config.user->uid = 71;
    config.programs = {{80, {"/bin/one"}, false, {}}, {14, {"/bin/two"}, false, tk::Account{}}};
    config.programs[1].user->uid = 72;
    runAsRouter(config);
    ASSERT_TRUE(config.programs[0].user);
    EXPECT_EQ(config.programs[0].user->uid, 71U);
    EXPECT_EQ(config.programs[1].user->uid, 72U);
    EXPECT_EQ(config.runners, (std::vector<hub::UserRights>{{71, {80}}}))
        << "it may be what it is started as";
}

TEST(RunAsRouter, AUnitNamesItsUserItself) {
    Config config;
    config.user = tk::Account{};
    config.programs = {{80, {}, false, {}, "upnpd.service"}};
    runAsRouter(config);
    EXPECT_FALSE(config.programs[0].user);
    EXPECT_TRUE(config.runners.empty());
}

TEST(RunAsRouter, WhatATriggerStartsHasItsUser) {
    Config config;
    config.user = tk::Account{};
    config.programs = {{80, {}, false, {}, {}, "/run/tk/start/upnpd"}};
    runAsRouter(config);
    EXPECT_FALSE(config.programs[0].user);
    EXPECT_TRUE(config.runners.empty());
}

constexpr uid_t self = 71;

tk::Account account(const char* name, uid_t user) {
    tk::Account account;
    account.name = name;
    account.uid = user;
    return account;
}

TEST(RunAsStarted, StartsItsProgramsAsItselfAndLetsThemRegister) {
    Config config;
    config.user = account("router", self);
    config.programs = {{80, {"/bin/one"}}, {81, {"/bin/two"}, false, account("router", self)}};
    config.runners = {{self, {81}}};  // as the file is read
    EXPECT_EQ(runAsStarted(config, self).reason(), "");
    EXPECT_EQ(config.programs, (std::vector<hub::ProgramConfig>{{80, {"/bin/one"}}, {81, {"/bin/two"}}}));
    EXPECT_EQ(config.runners, (std::vector<hub::UserRights>{{self, {81}}, {self, {80}}}));
}

TEST(RunAsStarted, GivesNoRightToWhatAServiceManagerRuns) {
    Config config;
    config.programs = {{80, {}, false, {}, "upnpd.service"},
                       {14, {}, false, {}, {}, "/run/tk/start/resolverd"}};
    EXPECT_TRUE(runAsStarted(config, self).isOk());
    EXPECT_TRUE(config.runners.empty());
}

TEST(RunAsStarted, RefusesToBecomeAnother) {
    Config config;
    config.user = account("other", 72);
    EXPECT_EQ(runAsStarted(config, self).reason(), "[router] user: only root can start it as other");
}

TEST(RunAsStarted, RefusesAProgramOfAnother) {
    Config config;
    config.programs = {{80, {"/bin/one"}, false, account("other", 72)}};
    EXPECT_EQ(
        runAsStarted(config, self).reason(),
        "program 80: user: only root can start it as other; give it a trigger in place of command and user");
}

TEST(UsualUser, MayBeTheProgramThatNobodyIsNamedFor) {
    const uid_t daemon = (*tk::findAccount("daemon"))->uid;
    Config config;
    config.users = {{71, {80}}};
    ASSERT_TRUE(nameUsualUsers(config, {{80, "root"}, {14, "daemon"}}).isOk());
    EXPECT_EQ(config.runners, (std::vector<hub::UserRights>{{daemon, {14}}}));
}

TEST(UsualUser, ThatTheSystemDoesNotKnowIsNone) {
    Config config;
    ASSERT_TRUE(nameUsualUsers(config, {{80, "no-such-user"}}).isOk());
    EXPECT_TRUE(config.runners.empty());
}

TEST(ChangedSections, AreNamedEachOnce) {
    const Config before = configIn("[router]\nuser = \"nobody\"\n");
    EXPECT_EQ(changedSections(before, before), std::vector<std::string>{});
    const Config after = configIn(
        "[guard]\nconnections = 1\n[nat]\nlimit = 1\nlimit-per-client = 1\n[lan]\nnetworks = []\n"
        "interfaces = []\n[[interface]]\nname = \"a\"\n[[user]]\nname = \"daemon\"\n"
        "[[program]]\nnumber = 80\ncommand = [\"/a\"]\n");
    EXPECT_EQ(changedSections(before, after),
              (std::vector<std::string>{"program", "user", "lan", "interface", "nat", "guard"}));
    Config others = before;
    others.runners = {{71, {80}}};
    EXPECT_EQ(changedSections(before, others), std::vector<std::string>{"program"});
}

TEST(CommandsIn, AreThoseOfProgramsAndOfInterfaces) {
    const auto commands =
        commandsIn(configIn("[[program]]\nnumber = 80\ncommand = [\"/a\"]\n"
                            "[[interface]]\nname = \"ppp0\"\ndown = [\"/b\"]\nup = [\"/c\"]\n"));
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[0].command, std::vector<std::string>{"/a"});
    EXPECT_EQ(commands[1].command, std::vector<std::string>{"/b"});
    EXPECT_EQ(commands[2].command, std::vector<std::string>{"/c"});
}

}  // namespace
}  // namespace router
