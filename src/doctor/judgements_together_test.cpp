// Facts that bear on each other, and what is found and said then.

#include "doctor/judgements.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

#include "doctor/iptables.h"
#include "doctor/testing/healthyrouter.h"

namespace doctor {
namespace {

/// The only finding on a router whose daemon does not answer.
Finding silentDaemon(bool isRunning, bool hasSystemd) {
    Facts facts = healthy();
    facts.machine.hasSystemd = hasSystemd;
    facts.bus.daemonAnswers = false;
    facts.bus.roles.clear();
    facts.machine.answers.clear();
    if (!isRunning) facts.bus.programs.erase(facts.bus.programs.begin() + 1);
    const Findings findings = judge(facts);
    return findings.size() == 1 ? findings[0] : Finding();
}

TEST(Judgement, ADaemonThatHangsLeavesTheMappings) {
    EXPECT_EQ(silentDaemon(true, true).why,
              "Nobody in the LAN finds the gateway, and mappings cannot be changed; those that exist go on.");
    EXPECT_EQ(silentDaemon(true, false).mend,
              (std::vector<std::string>{"kill -KILL 11", "tkctl upnp get  # routerd starts it for this"}));
    EXPECT_EQ(silentDaemon(false, true).why,
              "Nobody in the LAN finds the gateway, and all mappings are gone.");
    EXPECT_EQ(silentDaemon(false, false).mend,
              (std::vector<std::string>{"setsid /usr/sbin/upnpd </dev/null >>/var/log/upnpd.log 2>&1 &"}));
}

TEST(Judgement, WithoutSystemdNoLineNamesIt) {
    Facts facts = healthy();
    facts.machine.hasSystemd = false;
    for (ProgramFact& program : facts.bus.programs) {
        program.user = 0;
        program.version = "0.9";
    }
    Findings findings = judge(facts);
    EXPECT_EQ(findings.size(), 6U);
    facts.bus = {};
    for (const Finding& finding : judge(facts)) findings.push_back(finding);
    for (const Finding& finding : findings)
        for (const std::string& line : finding.mend)
            EXPECT_EQ(line.find("systemctl"), std::string::npos) << line;
    EXPECT_EQ(findings.back().mend.back(),
              "setsid /usr/sbin/routerd </dev/null >>/var/log/routerd.log 2>&1 &");
}

TEST(Judgement, AStoreIsNotMissedBeforeTheFirstStart) {
    Facts facts = healthy();
    facts.machine.stores[1].exists = false;
    facts.bus.programs.erase(facts.bus.programs.begin() + 1);
    EXPECT_EQ(judge(facts), Findings());
    facts.machine.hasFolderRules = true;
    EXPECT_EQ(judge(facts).size(), 1U);
}

TEST(Judgement, ASocketWithoutAKnownHolderProvesNothing) {
    Facts facts = healthy();
    for (SocketFact& socket : facts.machine.sockets) {
        socket.program.clear();
        socket.pid = 0;
    }
    EXPECT_EQ(judge(facts), Findings());
    facts.machine.sockets.push_back({true, "", "0.0.0.0", "own", 99});
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].code, "port-shared");
}

TEST(Judgement, ABrokenFileIsMendedBeforeTheRouterIsStarted) {
    Facts facts = healthy();
    facts.bus = {};
    facts.bus.routerSilence = "it is not running";
    facts.machine.config.fault = "/tesk/etc/router.toml:3: colour: unknown key";
    facts.machine.config.command = "/usr/sbin/routerd --check";
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 2U);
    EXPECT_EQ(findings[0].what, "/tesk/etc/router.toml:3: colour: unknown key.");
    EXPECT_EQ(findings[0].mend.back(), "/usr/sbin/routerd --check");
    EXPECT_EQ(findings[1].code, "router-silent");
    EXPECT_EQ(
        findings[1].mend,
        (std::vector<std::string>{"# first mend /tesk/etc/router.toml; this prints nothing when it is good:",
                                  "/usr/sbin/routerd --check", "systemctl restart routerd"}));
}

TEST(Judgement, AnAddressForManagementBesideAPublicOneIsNoSecondTranslation) {
    Facts facts = healthy();
    facts.machine.links.addresses.push_back(addressOf("wan0", "192.168.100.2"));
    EXPECT_EQ(judge(facts), Findings());
    facts.machine.links.addresses[1] = addressOf("wan0", "100.64.0.9");
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 1U) << "one for the interface";
    EXPECT_EQ(findings[0].what, "wan0 has the shared address 100.64.0.9.");
}

TEST(Judgement, ErrorsComeFirst) {
    Facts facts = healthy();
    facts.machine.bridges[0].isQuerier = false;
    facts.machine.unseen = {{"bridges", "no tool", ""}};
    facts.machine.stores[0].damaged = {"x"};
    facts.bus.settings.enabled = false;
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 4U);
    EXPECT_EQ(findings[0].code, "switched-off");
    EXPECT_EQ(findings[3].code, "not-seen");
}

TEST(Judgement, TheCountersProveADrop) {
    Facts facts = healthy();
    facts.bus.mappedPackets = 7;
    facts.machine.tables = readIptables("*filter\n:FORWARD DROP [12:720]\nCOMMIT\n", Keeper::iptablesNft);
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].what,
              "The policy of chain FORWARD of the iptables table filter drops connections through mappings, "
              "such as tcp "
              "198.51.100.1:51413 to 192.0.2.254:51413. It has dropped 12 packets, and the mappings had 7.");
}

TEST(Judgement, AChainIsTriedWithTheMappingsThatThereAre) {
    Facts facts = healthy();
    facts.machine.tables = readIptables(
        "*filter\n:FORWARD ACCEPT [0:0]\n-A FORWARD -p tcp -m tcp --dport 8080 -j DROP\nCOMMIT\n",
        Keeper::iptablesNft);
    EXPECT_EQ(judge(facts), Findings());
    MappedFlow flow;
    flow.externalAddress = ntohl(address("198.51.100.1"));
    flow.externalPort = 80;
    flow.protocol = IPPROTO_TCP;
    flow.client = ntohl(address("192.0.2.2"));
    flow.clientPort = 8080;
    facts.bus.flows = {flow};
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_NE(findings[0].what.find("such as tcp 198.51.100.1:80 to 192.0.2.2:8080"), std::string::npos);
}

TEST(Judgement, AMarkThatChoosesTheRouteMakesTheWayOfAnswersUncertain) {
    Facts facts = healthy();
    facts.machine.settings["wan0"].reversePathFilter = 0;
    facts.machine.answers[0].leavesBy = "wan1";
    facts.machine.marksChooseRoutes = true;
    EXPECT_EQ(judge(facts), Findings());
}

}  // namespace
}  // namespace doctor
