#include "doctor/letthrough.h"

#include <optional>

#include "doctor/walk.h"

namespace doctor {

namespace {

using Lines = std::vector<std::string>;

constexpr const char* iptablesRule = "-m conntrack --ctstate DNAT -j ACCEPT";

/// What mends a chain is a rule that accepts connections with translated destinations, at the head of it or
/// of a chain that it leads to.
Rule acceptingRule() {
    Condition translated;
    translated.subject = Subject::status;
    translated.names = {"dnat"};
    Rule rule;
    rule.conditions = {translated};
    rule.verdict = Verdict::accept;
    return rule;
}

/// True when the flow gets through once that rule stands at the head of `place`.
bool helps(Table table, const std::string& place, const std::string& chain, const MappedFlow& flow) {
    const auto found = table.chains.find(place);
    if (found == table.chains.end()) return false;
    found->second.rules.insert(found->second.rules.begin(), acceptingRule());
    for (const Packet& packet : {flow.request(), flow.reply()})
        if (walk(table, chain, packet, /*marksAreZero=*/false).drop) return false;
    return true;
}

std::string iptablesTool(const Facts& facts, const Table& table) {
    return table.keeper == Keeper::iptablesLegacy ? "iptables-legacy" : facts.machine.iptablesTool;
}

std::string iptablesLine(const Facts& facts, const Table& table, const std::string& place) {
    return iptablesTool(facts, table) + (table.name == "filter" ? "" : " -t " + table.name) + " -I " + place +
           ' ' + iptablesRule;
}

/// Chains that tools provide for rules of the administrator, and how a rule there is kept.
struct Place {
    const char* chain;
    const char* keep;
};
constexpr Place places[] = {
    {"FORWARD_direct", nullptr},  // firewalld's; its own command keeps the rule
    {"ufw-before-forward",
     "sed -i '/^:ufw-not-local /a -A ufw-before-forward -m conntrack --ctstate DNAT -j ACCEPT' "
     "/etc/ufw/before.rules"},
    {"DOCKER-USER", "# Docker does not keep it: repeat the line after each start of docker.service"},
};

Lines mendIptables(const Facts& facts, const Table& table, const std::string& chain, const MappedFlow& flow) {
    for (const Place& place : places) {
        if (!helps(table, place.chain, chain, flow)) continue;
        if (place.keep) return {iptablesLine(facts, table, place.chain), place.keep};
        return {
            std::string("firewall-cmd --permanent --direct --add-rule ipv4 filter FORWARD 0 ") + iptablesRule,
            "firewall-cmd --reload"};
    }
    return {iptablesLine(facts, table, chain), "# to keep it over a restart: netfilter-persistent save"};
}

std::string networkOf(const Facts& facts, const MappedFlow& flow) {
    for (const machine::Address& address : facts.addressesOf(flow.internal)) return address.network.text();
    return "0.0.0.0/0";
}

constexpr const char* strictHint =
    "# with StrictForwardPorts=yes in /etc/firewalld/firewalld.conf, setting it to no does it more narrowly";

/// A policy of its own, for its rules come before those of the zones.
Lines mendFirewalld(const Facts& facts, const MappedFlow& flow) {
    return {"firewall-cmd --permanent --new-policy=mappings",
            "firewall-cmd --permanent --policy=mappings --add-ingress-zone=ANY --add-egress-zone=ANY",
            "firewall-cmd --permanent --policy=mappings --add-rich-rule='rule family=\"ipv4\" destination "
            "address=\"" +
                networkOf(facts, flow) + "\" accept'",
            "firewall-cmd --reload", strictHint};
}

}  // namespace

std::vector<std::string> letThrough(const Facts& facts, const Table& table, const std::string& chain,
                                    const MappedFlow& flow) {
    if (table.keeper != Keeper::nftables) return mendIptables(facts, table, chain, flow);
    if (table.name == "firewalld") return mendFirewalld(facts, flow);
    return {
        "nft insert rule " + table.family + ' ' + table.name + ' ' + chain + " ct status dnat accept",
        "# to keep it: write 'ct status dnat accept' as the first rule of this chain in /etc/nftables.conf"};
}

}  // namespace doctor
