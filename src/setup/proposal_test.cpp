#include "setup/proposal.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

using machine::Link;
using machine::Links;

/// A machine, told in short.
class World {
public:
    World& link(const std::string& name, const std::string& kind = "", const std::string& type = "ether") {
        Link& made = machine.links.emplace_back();
        made.name = name;
        made.index = static_cast<std::uint32_t>(machine.links.size());
        made.isUp = made.hasCarrier = true;
        made.type = type;
        made.kind = kind;
        return *this;
    }
    World& in(const std::string& master) {
        machine.links.back().master = master;
        return *this;
    }
    World& on(const std::string& lower) {
        machine.links.back().lower = lower;
        return *this;
    }
    World& down() {
        machine.links.back().isUp = false;
        return *this;
    }
    /// Gives the last link an address.
    World& has(const std::string& address, bool isLeased = false) {
        machine::Address& made = machine.addresses.emplace_back();
        made.interface = machine.links.back().name;
        made.address = machine::parseIPv4(address.substr(0, address.find('/'))).value();
        made.network = machine::parseNetwork(address).value();
        made.scope = "global";
        made.isLeased = isLeased;
        return *this;
    }
    /// Adds a route by the last link.
    World& leads(const std::string& destination = "default", std::uint32_t metric = 0,
                 const std::string& table = "main") {
        machine.routes.push_back({machine::parseNetwork(destination).value(), "unicast", table,
                                  machine.links.back().name, std::nullopt, metric});
        return *this;
    }
    World& pppoe(const std::string& device) {
        machine.pppoeInterfaces.push_back(device);
        return *this;
    }

    Links machine;
};

World home() {
    return World()
        .link("lo", "", "loopback")
        .link("lan0", "bridge")
        .has("192.168.1.1/24")
        .link("port1")
        .in("lan0")
        .link("wan0")
        .has("198.51.100.7/24", true)
        .leads();
}

/// A proposal in one line: "lan0=internal wan0=external - docker0", or the reason why there is none.
std::string propose(const World& world, const Wishes& wishes = {}, const Present& present = {}) {
    const auto proposal = setup::propose(world.machine, present, wishes);
    if (!proposal.isOk()) return proposal.reason();
    std::string text;
    for (const Choice& choice : proposal->roles) text += choice.interface + '=' + roleName(choice.role) + ' ';
    text += "-";
    for (const Choice& choice : proposal->leftOut) text += ' ' + choice.interface;
    return text;
}

struct Case {
    const char* name;
    World world;
    const char* proposed;
};
const Case cases[] = {
    {"HomeRouter", home(), "lan0=internal wan0=external -"},
    {"BridgeMemberWithAnAddress", home().link("port2").in("lan0").has("192.168.9.1/24"),
     "lan0=internal wan0=external - port2"},
    {"SeveralLans", home().link("guest").has("192.168.2.1/24"),
     "lan0=internal guest=internal wan0=external -"},
    {"VlanLans",
     World()
         .link("eth0")
         .link("eth0.10", "vlan")
         .on("eth0")
         .has("10.0.10.1/24")
         .link("eth0.20", "vlan")
         .on("eth0")
         .has("10.0.20.1/24")
         .link("eth1")
         .has("8.8.4.4/24")
         .leads(),
     "eth0.10=internal eth0.20=internal eth1=external -"},
    {"RouterOnAStick",
     World()
         .link("eth0")
         .link("eth0.10", "vlan")
         .on("eth0")
         .has("10.0.10.1/24")
         .link("eth0.7", "vlan")
         .on("eth0")
         .has("198.51.100.7/24")
         .leads(),
     "eth0.10=internal eth0.7=external -"},
    {"PPPoE",
     World()
         .link("eth0")
         .has("192.168.100.2/24")
         .link("eth1")
         .has("192.168.1.1/24")
         .link("ppp0", "ppp", "ppp")
         .has("198.51.100.7/32")
         .leads()
         .pppoe("eth0"),
     "eth1=internal ppp0=external - eth0"},
    {"PPPoEOverAVlan",
     World()
         .link("eth0")
         .has("192.168.100.2/24")
         .link("eth0.7", "vlan")
         .on("eth0")
         .has("192.168.101.2/24")
         .link("eth1")
         .has("192.168.1.1/24")
         .link("ppp0", "ppp", "ppp")
         .has("198.51.100.7/32")
         .leads()
         .pppoe("eth0.7"),
     "eth1=internal ppp0=external - eth0 eth0.7"},
    {"UplinkThatIsABridge",
     World()
         .link("br-wan", "bridge")
         .has("198.51.100.7/24")
         .leads()
         .link("eth0")
         .in("br-wan")
         .has("192.168.9.1/24")
         .link("eth1")
         .has("192.168.1.1/24"),
     "eth1=internal br-wan=external - eth0"},
    {"FallbackUplink", home().link("lte0").has("192.168.8.100/24").leads("default", 700),
     "lan0=internal wan0=external - lte0"},
    {"TwoEqualUplinks", home().link("wan1").has("203.0.113.7/24").leads(),
     "lan0=internal wan0=external wan1=external -"},
    {"UplinksWithTablesOfTheirOwn",
     World()
         .link("lan0")
         .has("192.168.1.1/24")
         .link("wan0")
         .has("8.8.4.4/24")
         .leads("default", 0, "101")
         .link("wan1")
         .has("8.8.8.8/24")
         .leads("default", 0, "102"),
     "lan0=internal wan0=external wan1=external -"},
    {"SecondUplinkWithALeaseAndNoRoute", home().link("wan1").has("192.168.178.20/24", true),
     "lan0=internal wan0=external - wan1"},
    {"ContainersAndTunnels",
     home()
         .link("docker0", "bridge")
         .has("172.17.0.1/16")
         .link("virbr0", "bridge")
         .has("192.168.122.1/24")
         .link("br-0123456789ab", "bridge")
         .has("172.18.0.1/16")
         .link("wg0", "wireguard", "none")
         .has("10.8.0.1/24")
         .link("tun0", "tun", "none")
         .has("10.9.0.1/24")
         .link("tap0", "tun")
         .has("10.10.0.1/24")
         .link("ppp9", "ppp", "ppp")
         .has("10.11.0.2/32"),
     "lan0=internal wan0=external - docker0 virbr0 br-0123456789ab wg0 tun0 tap0 ppp9"},
    {"BridgeWithAnOrdinaryName", home().link("br-lan", "bridge").has("10.1.0.1/16"),
     "lan0=internal br-lan=internal wan0=external -"},
    {"EverythingThroughATunnel",
     home()
         .link("tun0", "tun", "none")
         .has("10.9.0.1/24")
         .leads("0.0.0.0/1")
         .leads("128.0.0.0/1")
         .leads("default", 0),
     "lan0=internal wan0=external - tun0"},
    {"PublicAndProvidersNetworks", home().link("dmz").has("9.9.9.1/28").link("cgn").has("100.64.1.1/24"),
     "lan0=internal wan0=external - dmz cgn"},
    {"ALanThatIsDown", home().link("lan1").has("192.168.3.1/24").down(),
     "lan0=internal wan0=external - lan1"},
    {"AnIdleUplinkWithADocumentationNetwork", home().link("wan1").has("203.0.113.1/24"),
     "lan0=internal wan0=external - wan1"},
    {"OnlyNetworksForDocumentation",
     World()
         .link("lan0")
         .has("192.0.2.1/24")
         .link("both")
         .has("203.0.113.1/24")
         .has("8.8.8.8/24")
         .link("wan0")
         .has("198.51.100.7/24")
         .leads(),
     "lan0=internal wan0=external - both"},
    {"UplinkWithAPrivateAddress",
     World().link("eth0").has("192.168.178.2/24").leads().link("eth1").has("192.168.1.1/24"),
     "eth1=internal eth0=external -"},
    {"OneInterface", World().link("eth0").has("192.168.178.2/24").leads(),
     "no LAN is found: no interface has a network of private addresses; give the LAN's interface its "
     "address, or "
     "name it with --lan NAME"},
    {"ContainersAlone",
     World().link("eth0").has("192.168.178.2/24").leads().link("docker0", "bridge").has("172.17.0.1/16"),
     "no LAN is found: no interface has a network of private addresses; docker0: it is a network of "
     "containers or "
     "virtual machines; give the LAN's interface its address, or name it with --lan NAME"},
    {"NoDefaultRoute", World().link("lan0").has("192.168.1.1/24"),
     "there is no default route, so there is no uplink: bring it up, or name it with --wan NAME"},
    {"DefaultRouteThroughATunnelAlone",
     World().link("lan0").has("192.168.1.1/24").link("wg0", "wireguard", "none").leads(),
     "the default route leads through the tunnel wg0 alone, so the uplink cannot be told: bring it up, or "
     "name it "
     "with --wan NAME"},
};
class Machines : public testing::TestWithParam<Case> {};
TEST_P(Machines, GetTheRolesAsTabled) {
    EXPECT_EQ(propose(GetParam().world), GetParam().proposed);
}
INSTANTIATE_TEST_SUITE_P(Proposal, Machines, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Proposal, SaysWhy) {
    const World world = home().link("wg0", "wireguard", "none").has("10.8.0.1/24");
    const auto proposal = setup::propose(world.machine, {}, {});
    ASSERT_TRUE(proposal.isOk()) << proposal.reason();
    EXPECT_EQ(*proposal, (Proposal{{{"lan0", Role::internal, "its network 192.168.1.0/24 is private"},
                                    {"wan0", Role::external, "it carries the default route"}},
                                   {{"wg0", Role::none, "it is a tunnel"}},
                                   {"lan0"}}));
}

TEST(Proposal, SaysThatALanIsGuessed) {
    World world = World().link("wan0").has("198.51.100.7/24").leads().link("lan0").has("192.0.2.1/24");
    EXPECT_EQ(setup::propose(world.machine, {}, {})->roles.front().why,
              "no LAN is private, and 192.0.2.0/24 is for documentation");
    world.link("wan1").has("203.0.113.1/24");
    EXPECT_EQ(setup::propose(world.machine, {}, {})->roles.front().why,
              "no LAN is private, and 192.0.2.0/24 is for documentation; --lan NAME leaves others out");
    EXPECT_EQ(propose(world, {}, {std::nullopt, {{1, "lan0", Role::internal}}}),
              "lan0=internal wan0=external - wan1")
        << "a LAN that is there already is no guess";
}

TEST(Proposal, WishesStandInPlaceOfWhatIsFound) {
    const World world =
        home().link("docker0", "bridge").has("172.17.0.1/16").link("wan1").has("203.0.113.7/24");
    EXPECT_EQ(propose(world, {{"docker0"}, {"wan1"}}), "docker0=internal wan1=external - lan0 wan0");
}

TEST(Proposal, AWishHasToNameAnInterfaceThatCanHaveARole) {
    EXPECT_EQ(propose(home(), {{"lan9"}, {}}),
              "there is no interface 'lan9' that can have a role; there are: lan0, wan0");
    EXPECT_EQ(propose(home(), {{}, {"lo"}}),
              "there is no interface 'lo' that can have a role; there are: lan0, wan0");
    EXPECT_EQ(propose(home(), {{"port1"}, {}}), "port1 is a member of lan0: name lan0 instead");
    EXPECT_EQ(propose(home(), {{"lan0"}, {"lan0"}}), "lan0 cannot be both --lan and --wan");
}

TEST(Proposal, AnOutsideInterfaceBecomesInternalOnlyWithForce) {
    const World world = home().link("eth9").has("10.0.0.1/24").leads("8.0.0.0/8");
    EXPECT_EQ(propose(world), "lan0=internal wan0=external - eth9");
    EXPECT_EQ(propose(world, {{"eth9"}, {}}),
              "eth9 (named with --lan) is outside: it carries a route to 8.0.0.0/8; --force makes it "
              "internal anyway");
    EXPECT_EQ(propose(world, {{"eth9"}, {}, true}), "eth9=internal wan0=external - lan0");
    EXPECT_EQ(propose(home(), {{"wan0"}, {}, true}),
              "no uplink is left beside the LAN: bring one up, or name it with --wan NAME");
}

TEST(Proposal, TheConfigurationNamesTheLan) {
    const World world = home().link("dmz").has("192.168.7.1/24");
    const Present present{{{"lan9", "lan0"}}, {}};
    EXPECT_EQ(propose(world, {}, present), "lan0=internal wan0=external - dmz");
    EXPECT_EQ(setup::propose(world.machine, present, {})->lanInterfaces,
              (std::vector<std::string>{"lan9", "lan0"}))
        << "what is absent may come back";
    EXPECT_EQ(propose(world, {}, {{{"wan0"}}, {}}),
              "wan0 (named in [lan] interfaces) is outside: it carries the default route; --force makes it "
              "internal "
              "anyway");
    EXPECT_EQ(setup::propose(home().machine, {{{"port1"}}, {}}, {})->lanInterfaces,
              (std::vector<std::string>{"lan0"}))
        << "a bridge stands for its members";
    EXPECT_EQ(propose(world, {}, {std::vector<std::string>(), {}}),
              "lan0=internal dmz=internal wan0=external -")
        << "an empty list names nothing";
}

TEST(Proposal, RolesThatMakeSenseStay) {
    const World world =
        home().link("wg0", "wireguard", "none").has("10.8.0.1/24").link("wan1").has("192.168.8.2/24");
    const Present present{std::nullopt, {{1, "wg0", Role::internal}, {2, "wan1", Role::external}}};
    EXPECT_EQ(propose(world, {}, present), "wg0=internal lan0=internal wan0=external wan1=external -");
}

std::vector<ItemChange> changes(const World& world, const std::vector<Item>& items,
                                const Wishes& wishes = {}) {
    const auto proposal = setup::propose(world.machine, {std::nullopt, items}, wishes);
    EXPECT_TRUE(proposal.isOk()) << proposal.reason();
    return itemChanges(items, *proposal);
}

constexpr auto addition = ItemChange::Kind::add;
constexpr auto change = ItemChange::Kind::change;
constexpr auto removal = ItemChange::Kind::remove;

TEST(ItemChanges, AreAdditionsAtFirstAndThenNone) {
    EXPECT_EQ(changes(home(), {}), (std::vector<ItemChange>{{addition, 0, "lan0", Role::internal},
                                                            {addition, 0, "wan0", Role::external}}));
    EXPECT_TRUE(changes(home(), {{1, "lan0", Role::internal}, {2, "wan0", Role::external, true}}).empty());
}

TEST(ItemChanges, MendARoleOnTheWrongSideOrOnAMember) {
    EXPECT_EQ(
        changes(home(), {{1, "port1", Role::internal}, {2, "wan0", Role::internal}, {3, "", Role::external}}),
        (std::vector<ItemChange>{{removal, 1, "port1", Role::internal},
                                 {addition, 0, "lan0", Role::internal},
                                 {change, 2, "wan0", Role::external}}));
}

TEST(ItemChanges, TakeAwayWhatAWishLeavesOut) {
    const World world = home().link("guest").has("192.168.2.1/24");
    EXPECT_EQ(
        changes(world,
                {{1, "guest", Role::internal}, {2, "lan0", Role::internal}, {3, "wan0", Role::external}},
                {{"lan0"}, {}}),
        (std::vector<ItemChange>{{removal, 1, "guest", Role::internal}}));
}

TEST(ItemChanges, AreToldInWords) {
    EXPECT_EQ(describe({addition, 0, "lan0", Role::internal}), "add lan0 as internal");
    EXPECT_EQ(describe({change, 2, "wan0", Role::external}), "change wan0 to external");
    EXPECT_EQ(describe({removal, 1, "port1", Role::internal}), "remove port1 (internal)");
}

}  // namespace
}  // namespace setup
