#include "doctor/judgements.h"
#include "machine/network.h"
#include "net/convert.h"

namespace doctor {

namespace {

using contract::Role;

std::vector<RoleFact> servedRoles(const Facts& facts) {
    std::vector<RoleFact> roles = facts.rolesOf(Role::internal);
    const std::vector<RoleFact> external = facts.rolesOf(Role::external);
    roles.insert(roles.end(), external.begin(), external.end());
    return roles;
}

void judgeLink(const machine::Link& link, Findings& findings) {
    if (link.isUp && link.hasCarrier) return;
    findings.push_back(
        {"link-down",
         Severity::error,
         link.name,
         link.name + (link.isUp ? " has no link: nothing is connected, or the other end is off."
                                : " is switched off."),
         "No packet comes or goes there.",
         {link.isUp ? "# look at the cable, and at the device at its other end"
                    : "ip link set " + link.name + " up"}});
}

void judgeAddress(const Facts& facts, const RoleFact& role, Findings& findings) {
    if (!facts.addressesOf(role.name).empty()) return;
    const bool isInternal = role.role == Role::internal;
    findings.push_back(
        {"no-address",
         Severity::error,
         role.name,
         role.name + " has no IPv4 address.",
         isInternal ? "The gateway is served at the address of an internal interface."
                    : "Mappings lead from the address of the external interface.",
         {"# let " + role.name +
          " get an address (DHCP, PPP), or give it one: ip address add ADDRESS/LENGTH dev " + role.name}});
}

/// Where the routes of an interface lead to; empty when they name nobody.
std::string gatewayBehind(const Facts& facts, const std::string& interface) {
    for (const machine::Route& route : facts.machine.links.routes)
        if (route.isDefault() && route.device == interface && route.gateway)
            return gateway::ipToString(*route.gateway);
    return {};
}

std::vector<std::string> mendUpstream(machine::Reach reach, const std::string& address,
                                      const std::string& upstream) {
    const std::string where =
        upstream.empty() ? "the device before this router" : "the router at " + upstream;
    if (reach == machine::Reach::shared)
        return {"# ask the provider for a public IPv4 address: only the provider could repeat the mapping"};
    if (reach == machine::Reach::link)
        return {
            "# the uplink gave out no address: look at the modem or provider, then ask for an address again"};
    return {"# on " + where + ": repeat each mapping, or forward all ports, to " + address +
            ", or make it a mere modem (bridge mode)"};
}

void judgeUpstreamOf(const Facts& facts, const std::string& interface, Findings& findings) {
    std::vector<std::uint32_t> addresses;
    for (const machine::Address& address : facts.addressesOf(interface)) addresses.push_back(address.address);
    const auto inner = machine::innerAddressOf(addresses);
    if (!inner) return;
    const machine::Reach reach = machine::reachOf(*inner);
    const std::string word = machine::reachWord(reach);
    const std::string text = gateway::ipToString(*inner);
    findings.push_back(
        {"address-" + word, Severity::error, interface,
         interface + " has the " + word + " address " + text + '.',
         reach == machine::Reach::link
             ? "Such an address is not reachable from anywhere else."
             : "Another device translates addresses between this router and the Internet, and knows nothing "
               "of the mappings.",
         mendUpstream(reach, text, gatewayBehind(facts, interface))});
}

void judgeAnswer(const Facts& facts, const AnswerRoute& answer, Findings& findings) {
    if (answer.leavesBy.empty()) {
        findings.push_back({"no-way-out",
                            Severity::error,
                            answer.external,
                            "There is no route from the LAN to the Internet.",
                            "Answers to hosts outside cannot leave.",
                            {"# get a default route for " + answer.external +
                             ": ip route add default via GATEWAY dev " + answer.external}});
        return;
    }
    if (answer.leavesBy == answer.external || facts.machine.marksChooseRoutes) return;
    const std::string upstream = gatewayBehind(facts, answer.external);
    const std::string& name = answer.external;
    constexpr std::uint32_t firstTable = 1000;  // past 253 to 255, which are the kernel's own
    const std::string table = std::to_string(firstTable + facts.machine.links.find(name)->index);
    findings.push_back(
        {"answers-leave-elsewhere",
         Severity::error,
         name,
         "Answers to connections that come by " + name + " leave by " + answer.leavesBy + '.',
         "There they have the wrong source address, and the hosts that asked do not take them.",
         {"ip route add default " + (upstream.empty() ? "" : "via " + upstream + ' ') + "dev " + name +
              " table " + table,
          "ip rule add fwmark " + table + " table " + table, "nft add table ip uplinks",
          "nft add chain ip uplinks prerouting '{ type filter hook prerouting priority mangle; }'",
          "nft add rule ip uplinks prerouting iifname " + name + " ct state new ct mark set " + table,
          "nft add rule ip uplinks prerouting iifname != " + name + " ct mark " + table +
              " meta mark set ct mark",
          "# to keep it: write the same into the configuration of " + name +
              " and into /etc/nftables.conf"}});
}

void judgeFilter(const Facts& facts, const AnswerRoute& answer, Findings& findings) {
    constexpr int strict = 1;
    const auto settings = facts.machine.settings.find(answer.external);
    if (settings == facts.machine.settings.end() || settings->second.reversePathFilter != strict) return;
    if (answer.leavesBy == answer.external || answer.leavesBy.empty()) return;
    const std::string key = "net/ipv4/conf/" + answer.external + "/rp_filter=2";  // names may have dots
    findings.push_back(
        {"rp-filter-drops",
         Severity::error,
         answer.external,
         "The kernel drops what comes from the Internet by " + answer.external + ": its rp_filter is strict.",
         "It takes packets only by the interface by which it would answer, which is " + answer.leavesBy + '.',
         {"sysctl -w " + key, "echo " + key + " >/etc/sysctl.d/60-" + answer.external + ".conf"}});
}

}  // namespace

void judgeLinks(const Facts& facts, Findings& findings) {
    for (const RoleFact& role : servedRoles(facts)) {
        const machine::Link* link = facts.machine.links.find(role.name);
        if (!link) continue;
        judgeLink(*link, findings);
        judgeAddress(facts, role, findings);
    }
}

void judgeUpstream(const Facts& facts, Findings& findings) {
    for (const RoleFact& role : facts.rolesOf(Role::external)) judgeUpstreamOf(facts, role.name, findings);
}

void judgeRouting(const Facts& facts, Findings& findings) {
    for (const AnswerRoute& answer : facts.machine.answers) {
        judgeAnswer(facts, answer, findings);
        judgeFilter(facts, answer, findings);
    }
}

}  // namespace doctor
