// Facts that are as they should be, each changed in one way, and what is found then.

#include "doctor/judgements.h"

#include <functional>

#include <gtest/gtest.h>

#include "doctor/iptables.h"
#include "doctor/testing/healthyrouter.h"

namespace doctor {
namespace {

using contract::Role;
using contract::Side;

Table nftTable(const std::string& name, std::vector<Rule> rules, bool policyDrops) {
    Table table{Keeper::nftables, "inet", name, {}, false};
    table.chains["forward"] = {true, 0, policyDrops, std::nullopt, std::move(rules)};
    return table;
}

Rule plain(Verdict verdict) {
    Rule rule;
    rule.verdict = verdict;
    rule.text = "a rule";
    return rule;
}

TEST(Judgement, FindsNothingWrongWithAHealthyRouter) {
    EXPECT_EQ(judge(healthy()), Findings());
}

struct Case {
    const char* name;
    std::function<void(Facts&)> change;
    const char* code;
    Severity severity;
    const char* subject;
    const char* mend;  // the first line
};
const Case cases[] = {
    {"RouterSilent", [](Facts& facts) { facts.bus = {}; }, "router-silent", Severity::error, "routerd",
     "systemctl restart routerd"},
    {"NotAllowedToAsk",
     [](Facts& facts) {
         facts.bus = {};
         facts.bus.mayAsk = false;
     },
     "router-silent", Severity::error, "routerd", "sudo tkctl doctor"},
    {"ConfigBroken", [](Facts& facts) { facts.machine.config.fault = "router.toml:3: x: unknown key"; },
     "config-broken", Severity::error, "/tesk/etc/router.toml",
     "# mend /tesk/etc/router.toml; this prints nothing when it is good:"},
    {"RulesNotRead", [](Facts& facts) { facts.bus.rulesSilence = "timed out"; }, "not-seen", Severity::note,
     "the mappings", nullptr},
    {"DaemonNotToBeAsked",
     [](Facts& facts) {
         facts.bus.daemonAnswers = false;
         facts.bus.daemonRefusal = "may not look";
         facts.bus.roles.clear();
     },
     "not-seen", Severity::note, "the settings and roles", "sudo tkctl doctor"},
    {"DaemonSilent",
     [](Facts& facts) {
         facts.bus.daemonAnswers = false;
         facts.bus.roles.clear();
         facts.machine.answers.clear();
     },
     "daemon-silent", Severity::error, "upnpd", "systemctl restart upnpd"},
    {"SwitchedOff", [](Facts& facts) { facts.bus.settings.enabled = false; }, "switched-off", Severity::error,
     "upnpd", "tkctl upnp set enabled=yes"},
    {"NoInternalRole", [](Facts& facts) { facts.bus.roles.erase(facts.bus.roles.begin()); },
     "no-internal-role", Severity::error, "internal", "tkctl upnp interface add lan0 internal"},
    {"NoExternalRole", [](Facts& facts) { facts.bus.roles.pop_back(); }, "no-external-role", Severity::error,
     "external", "tkctl upnp interface add wan0 external"},
    {"RoleDisabled",
     [](Facts& facts) {
         facts.bus.roles.push_back({3, 4, "wan1", Role::external, true});
     },
     "role-disabled", Severity::note, "wan1", "tkctl upnp interface set 3 disabled=no"},
    {"RoleOnMissingInterface",
     [](Facts& facts) {
         facts.bus.roles.push_back({3, 9, "", Role::external, false});
     },
     "role-on-missing-interface", Severity::error, "item 3", "tkctl upnp interface remove 3"},
    {"InternalRoleOutside", [](Facts& facts) { facts.bus.interfaces[0].side.side = Side::outside; },
     "internal-role-outside", Severity::error, "lan0",
     "# if it is the LAN, name it in [lan] interfaces of /tesk/etc/router.toml; then:"},
    {"ExternalRoleInside", [](Facts& facts) { facts.bus.interfaces[1].side.side = Side::inside; },
     "external-role-inside", Severity::error, "wan0",
     "# name the interfaces of the LAN, without wan0, in [lan] interfaces of /tesk/etc/router.toml; then:"},
    {"RoleOnMember",
     [](Facts& facts) {
         facts.machine.links.links[0].master = "br9";
         facts.machine.links.links.push_back(link("br9", 9));
         facts.machine.links.links.back().kind = "bridge";
     },
     "role-on-member", Severity::error, "lan0", "tkctl upnp interface set 1 interface=br9"},
    {"RoleOnMemberOfBond",
     [](Facts& facts) {
         facts.machine.links.links[1].master = "bond9";
         facts.machine.links.links.push_back(link("bond9", 9));
         facts.machine.links.links.back().kind = "bond";
     },
     "role-on-member", Severity::error, "wan0", "tkctl upnp interface set 2 interface=bond9"},
    {"LinkOff", [](Facts& facts) { facts.machine.links.links[1].isUp = false; }, "link-down", Severity::error,
     "wan0", "ip link set wan0 up"},
    {"NoCarrier", [](Facts& facts) { facts.machine.links.links[1].hasCarrier = false; }, "link-down",
     Severity::error, "wan0", "# look at the cable, and at the device at its other end"},
    {"NoAddress", [](Facts& facts) { facts.machine.links.addresses.pop_back(); }, "no-address",
     Severity::error, "wan0",
     "# let wan0 get an address (DHCP, PPP), or give it one: ip address add ADDRESS/LENGTH dev wan0"},
    {"AddressPrivate",
     [](Facts& facts) { facts.machine.links.addresses[1] = addressOf("wan0", "192.168.1.2"); },
     "address-private", Severity::error, "wan0",
     "# on the router at 198.51.100.2: repeat each mapping, or forward all ports, to 192.168.1.2, or make it "
     "a mere modem "
     "(bridge mode)"},
    {"AddressShared",
     [](Facts& facts) { facts.machine.links.addresses[1] = addressOf("wan0", "100.64.0.9"); },
     "address-shared", Severity::error, "wan0",
     "# ask the provider for a public IPv4 address: only the provider could repeat the mapping"},
    {"AddressLinkLocal",
     [](Facts& facts) { facts.machine.links.addresses[1] = addressOf("wan0", "169.254.3.4"); },
     "address-link-local", Severity::error, "wan0",
     "# the uplink gave out no address: look at the modem or provider, then ask for an address again"},
    {"IpForwardOff", [](Facts& facts) { facts.machine.forwards = false; }, "ip-forward-off", Severity::error,
     "kernel", "sysctl -w net.ipv4.ip_forward=1"},
    {"IpForwardOffAtOneInterface", [](Facts& facts) { facts.machine.settings["wan0"].forwards = false; },
     "ip-forward-off", Severity::error, "wan0", "sysctl -w net/ipv4/conf/wan0/forwarding=1"},
    {"NftPolicy", [](Facts& facts) { facts.machine.tables = {nftTable("filter", {}, true)}; }, "forward-drop",
     Severity::error, "inet filter forward", "nft insert rule inet filter forward ct status dnat accept"},
    {"NftRule",
     [](Facts& facts) { facts.machine.tables = {nftTable("filter", {plain(Verdict::drop)}, false)}; },
     "forward-drop", Severity::error, "inet filter forward",
     "nft insert rule inet filter forward ct status dnat accept"},
    {"NftDoubt",
     [](Facts& facts) { facts.machine.tables = {nftTable("filter", {plain(Verdict::unknown)}, false)}; },
     "forward-may-drop", Severity::warning, "inet filter forward",
     "nft insert rule inet filter forward ct status dnat accept"},
    {"Firewalld", [](Facts& facts) { facts.machine.tables = {nftTable("firewalld", {}, true)}; },
     "forward-drop", Severity::error, "inet firewalld forward",
     "firewall-cmd --permanent --new-policy=mappings"},
    {"Flowtable",
     [](Facts& facts) {
         Rule offload = plain(Verdict::offload);
         offload.target = "@fast";
         facts.machine.tables = {nftTable("filter", {offload}, false)};
     },
     "flowtable-bypass", Severity::warning, "flowtable @fast",
     "nft insert rule inet filter forward ct label 116 accept"},
    {"Iptables",
     [](Facts& facts) {
         facts.machine.tables = readIptables("*filter\n:FORWARD DROP [0:0]\nCOMMIT\n", Keeper::iptablesNft);
     },
     "forward-drop", Severity::error, "ip filter FORWARD",
     "iptables -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT"},
    {"IptablesMangle",
     [](Facts& facts) {
         facts.machine.tables =
             readIptables("*mangle\n:FORWARD DROP [0:0]\nCOMMIT\n", Keeper::iptablesLegacy);
     },
     "forward-drop", Severity::error, "ip mangle FORWARD",
     "iptables-legacy -t mangle -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT"},
    {"Docker",
     [](Facts& facts) {
         facts.machine.tables = readIptables(
             "*filter\n:FORWARD DROP [0:0]\n:DOCKER-USER - [0:0]\n-A FORWARD -j DOCKER-USER\n"
             "-A DOCKER-USER -j RETURN\nCOMMIT\n",
             Keeper::iptablesNft);
     },
     "forward-drop", Severity::error, "ip filter FORWARD",
     "iptables -I DOCKER-USER -m conntrack --ctstate DNAT -j ACCEPT"},
    {"DockerThatIsNotAsked",
     [](Facts& facts) {
         facts.machine.tables = readIptables("*filter\n:FORWARD DROP [0:0]\n:DOCKER-USER - [0:0]\nCOMMIT\n",
                                             Keeper::iptablesNft);
     },
     "forward-drop", Severity::error, "ip filter FORWARD",
     "iptables -I FORWARD -m conntrack --ctstate DNAT -j ACCEPT"},
    {"Ufw",
     [](Facts& facts) {
         facts.machine.tables = readIptables(
             "*filter\n:FORWARD DROP [0:0]\n:ufw-before-forward - [0:0]\n-A FORWARD -j "
             "ufw-before-forward\nCOMMIT\n",
             Keeper::iptablesNft);
     },
     "forward-drop", Severity::error, "ip filter FORWARD",
     "iptables -I ufw-before-forward -m conntrack --ctstate DNAT -j ACCEPT"},
    {"FirewalldWithIptables",
     [](Facts& facts) {
         facts.machine.tables = readIptables(
             "*filter\n:FORWARD ACCEPT [0:0]\n:FORWARD_direct - [0:0]\n-A FORWARD -j FORWARD_direct\n"
             "-A FORWARD -j REJECT\nCOMMIT\n",
             Keeper::iptablesNft);
     },
     "forward-drop", Severity::error, "ip filter FORWARD",
     "firewall-cmd --permanent --direct --add-rule ipv4 filter FORWARD 0 -m conntrack --ctstate DNAT -j "
     "ACCEPT"},
    {"NoWayOut", [](Facts& facts) { facts.machine.answers[0].leavesBy.clear(); }, "no-way-out",
     Severity::error, "wan0", "# get a default route for wan0: ip route add default via GATEWAY dev wan0"},
    {"AnswersLeaveElsewhere",
     [](Facts& facts) {
         facts.machine.settings["wan0"].reversePathFilter = 2;
         facts.machine.answers[0].leavesBy = "wan1";
     },
     "answers-leave-elsewhere", Severity::error, "wan0",
     "ip route add default via 198.51.100.2 dev wan0 table 1003"},
    {"RpFilterDrops",
     [](Facts& facts) {
         facts.machine.marksChooseRoutes = true;
         facts.machine.answers[0].leavesBy = "wan1";
     },
     "rp-filter-drops", Severity::error, "wan0", "sysctl -w net/ipv4/conf/wan0/rp_filter=2"},
    {"PortTaken",
     [](Facts& facts) {
         facts.machine.sockets[1] = {true, "", "0.0.0.0", "other", 99};
     },
     "port-taken", Severity::error, "TCP 2828",
     "# stop that program, or let it use another port or interface; then:"},
    {"PortShared",
     [](Facts& facts) {
         facts.machine.sockets.push_back({false, "", "0.0.0.0", "other", 99});
     },
     "port-shared", Severity::note, "UDP 1900", nullptr},
    {"OtherGateway",
     [](Facts& facts) {
         facts.machine.gateways = {{"lan0", "192.0.2.3", "Box/1"}};
     },
     "other-gateway", Severity::error, "lan0",
     "# switch UPnP off on 192.0.2.3, or give its network no part of this LAN"},
    {"SnoopingWithoutQuerier", [](Facts& facts) { facts.machine.bridges[0].isQuerier = false; },
     "snooping-without-querier", Severity::warning, "lan0", "ip link set lan0 type bridge mcast_querier 1"},
    {"LanMayDisconnect",
     [](Facts& facts) {
         facts.bus.settings.allowDisableExternal = true;
         facts.machine.config.terminable = {"wan0"};
     },
     "lan-may-disconnect", Severity::warning, "wan0", "tkctl upnp set allow-disable-external=no"},
    {"RunsAsRoot", [](Facts& facts) { facts.bus.programs[2].user = 0; }, "runs-as-root", Severity::warning,
     "resolverd", "# give it a user of its own: user in its [[program]] in /tesk/etc/router.toml; then:"},
    {"RouterRunsAsRoot", [](Facts& facts) { facts.bus.programs[0].user = 0; }, "runs-as-root",
     Severity::warning, "routerd",
     "# give it a user of its own: [router] user in /tesk/etc/router.toml; then:"},
    {"GuardOff", [](Facts& facts) { facts.machine.guardedUsers->clear(); }, "guard-off", Severity::warning,
     "upnpd", "# in /tesk/etc/router.toml: [guard] limit-connections = true; then:"},
    {"VersionDiffers", [](Facts& facts) { facts.bus.programs[1].version = "0.9"; }, "version-differs",
     Severity::warning, "upnpd", "systemctl restart upnpd"},
    {"StoreOfAnotherUser", [](Facts& facts) { facts.machine.stores[1].owner = 5; }, "store-closed",
     Severity::warning, "/tesk/store", "chown -R 64002 /tesk/store"},
    {"StoreMissing", [](Facts& facts) { facts.machine.stores[1].exists = false; }, "store-closed",
     Severity::warning, "/tesk/store", "mkdir -p /tesk/store"},
    {"StoreOfThePackageMissing",
     [](Facts& facts) {
         facts.machine.stores[1].exists = false;
         facts.machine.hasFolderRules = true;
     },
     "store-closed", Severity::warning, "/tesk/store", "systemd-tmpfiles --create gateway.conf"},
    {"StoreFull", [](Facts& facts) { facts.machine.stores[1].freeBytes = 100; }, "store-closed",
     Severity::warning, "/tesk/store", "# make room: df /tesk/store"},
    {"StoreReadOnly", [](Facts& facts) { facts.machine.stores[1].isReadOnly = true; }, "store-closed",
     Severity::warning, "/tesk/store", "mount -o remount,rw \"$(findmnt -no TARGET --target /tesk/store)\""},
    {"StoreDamaged", [](Facts& facts) { facts.machine.stores[1].damaged = {"/tesk/store/upnp.damaged"}; },
     "store-damaged", Severity::warning, "/tesk/store/upnp.damaged", "tkctl upnp interface list"},
    {"ClockBehindTheBuild", [](Facts& facts) { facts.machine.builtAfter = 1000000; }, "clock-wrong",
     Severity::warning, "clock", "timedatectl set-ntp true"},
    {"ClockBehindTheStores", [](Facts& facts) { facts.machine.stores[0].newest = 1000000; }, "clock-wrong",
     Severity::warning, "clock", "timedatectl set-ntp true"},
    {"NotSeen",
     [](Facts& facts) {
         facts.machine.unseen = {{"bridges", "there is no tool bridge", "apt install iproute2"}};
     },
     "not-seen", Severity::note, "bridges", "apt install iproute2"},
};
class Judgement : public testing::TestWithParam<Case> {};
TEST_P(Judgement, FindsExactlyWhatIsWrong) {
    Facts facts = healthy();
    GetParam().change(facts);
    const Findings findings = judge(facts);
    ASSERT_EQ(findings.size(), 1U) << (findings.size() > 1 ? findings[1].code : "");
    EXPECT_EQ(findings[0].code, GetParam().code);
    EXPECT_EQ(findings[0].severity, GetParam().severity);
    EXPECT_EQ(findings[0].subject, GetParam().subject);
    if (GetParam().mend)
        EXPECT_EQ(findings[0].mend.at(0), GetParam().mend);
    else
        EXPECT_TRUE(findings[0].mend.empty());
    EXPECT_TRUE(findings[0].what.ends_with('.') && findings[0].why.ends_with('.')) << findings[0].what;
}
INSTANTIATE_TEST_SUITE_P(Faults, Judgement, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Judgement, ProposesOnlyRolesThatCanBeGiven) {
    const auto proposed = [](const Facts& facts) {
        for (const Finding& finding : judge(facts))
            if (finding.code == "no-internal-role") return finding.mend;
        return std::vector<std::string>();
    };
    Facts facts = healthy();
    facts.bus.roles[0].isDisabled = true;
    EXPECT_EQ(proposed(facts), std::vector<std::string>{"tkctl upnp interface set 1 disabled=no"});
    facts.bus.roles[0].role = Role::external;  // an interface has one item at most
    EXPECT_EQ(proposed(facts), std::vector<std::string>{"# tkctl upnp interface add NAME internal"});
}

}  // namespace
}  // namespace doctor
