#include <algorithm>
#include <optional>

#include "doctor/judgements.h"
#include "doctor/letthrough.h"
#include "doctor/walk.h"

namespace doctor {

namespace {

void judgeSettings(const Facts& facts, Findings& findings) {
    if (!facts.machine.forwards) {
        findings.push_back({"ip-forward-off",
                            Severity::error,
                            "kernel",
                            "The kernel does not forward packets (ip_forward is 0).",
                            "Nothing passes between the Internet and the LAN.",
                            {"sysctl -w net.ipv4.ip_forward=1",
                             "echo net.ipv4.ip_forward=1 >/etc/sysctl.d/60-forward.conf"}});
        return;
    }
    for (const RoleFact& role : facts.bus.roles) {
        const auto settings = facts.machine.settings.find(role.name);
        if (role.isDisabled || settings == facts.machine.settings.end() || settings->second.forwards)
            continue;
        const std::string key = "net/ipv4/conf/" + role.name + "/forwarding=1";  // names may have dots
        findings.push_back(
            {"ip-forward-off",
             Severity::error,
             role.name,
             "The kernel does not forward what comes by " + role.name + '.',
             "Nothing passes from there to the other side.",
             {"sysctl -w " + key, "echo " + key + " >/etc/sysctl.d/60-" + role.name + ".conf"}});
    }
}

/// What one chain does with the connections that were tried.
struct Verdicts {
    struct Case {
        MappedFlow flow;
        bool isReply = false;
        Outcome outcome;
    };
    std::optional<Case> dropped;
    std::optional<Case> doubtful;
    std::optional<Case> offloaded;
};

void note(std::optional<Verdicts::Case>& place, const MappedFlow& flow, bool isReply,
          const Outcome& outcome) {
    if (!place) place = Verdicts::Case{flow, isReply, outcome};
}

Verdicts tryChain(const Table& table, const std::string& chain, const std::vector<MappedFlow>& flows,
                  bool marksAreZero) {
    Verdicts verdicts;
    for (const MappedFlow& flow : flows) {
        for (const bool isReply : {false, true}) {
            const Outcome outcome = walk(table, chain, isReply ? flow.reply() : flow.request(), marksAreZero);
            if (outcome.isDropped())
                note(verdicts.dropped, flow, isReply, outcome);
            else if (outcome.drop)
                note(verdicts.doubtful, flow, isReply, outcome);
            if (outcome.flowtable) note(verdicts.offloaded, flow, isReply, outcome);
        }
    }
    return verdicts;
}

std::string tableText(const Table& table) {
    switch (table.keeper) {
        case Keeper::nftables:
            return "nftables table " + table.family + ' ' + table.name;
        case Keeper::iptablesNft:
            return "iptables table " + table.name;
        case Keeper::iptablesLegacy:
            return "iptables-legacy table " + table.name;
    }
    return {};
}

std::string siteText(const Table& table, const DropSite& site) {
    const std::string where = "chain " + site.chain + " of the " + tableText(table);
    if (site.rule.empty()) return "The policy of " + where;
    return "The rule \"" + site.rule + "\" in " + where;
}

/// What the counters say; empty when they say nothing.
std::string proof(const Facts& facts, const DropSite& site) {
    if (site.packets.value_or(0) == 0) return {};
    const std::string dropped = " It has dropped " + std::to_string(*site.packets) + " packets";
    if (facts.bus.mappedPackets == 0) return dropped + '.';
    return dropped + ", and the mappings had " + std::to_string(facts.bus.mappedPackets) + '.';
}

std::string caseText(const Verdicts::Case& tried) {
    return std::string(tried.isReply ? "answers to connections" : "connections") +
           " through mappings, such as " + tried.flow.text();
}

void judgeDrop(const Facts& facts, const Table& table, const std::string& chain, const Verdicts::Case& tried,
               Findings& findings) {
    const DropSite& site = *tried.outcome.drop;
    findings.push_back({"forward-drop", Severity::error, table.family + ' ' + table.name + ' ' + chain,
                        siteText(table, site) + " drops " + caseText(tried) + '.' + proof(facts, site),
                        "A mapping changes where packets go, but they still have to pass every chain at "
                        "forward. Clients are "
                        "told that their mapping works.",
                        letThrough(facts, table, chain, tried.flow)});
}

void judgeDoubt(const Facts& facts, const Table& table, const std::string& chain, const Verdicts::Case& tried,
                Findings& findings) {
    const DropSite& site = *tried.outcome.drop;
    findings.push_back({"forward-may-drop", Severity::warning, table.family + ' ' + table.name + ' ' + chain,
                        siteText(table, site) + " may drop " + caseText(tried) + '.' + proof(facts, site),
                        "It depends on what this program cannot tell: \"" + tried.outcome.doubt + "\".",
                        letThrough(facts, table, chain, tried.flow)});
}

void judgeOffload(const Table& table, const std::string& chain, const Verdicts::Case& tried,
                  Findings& findings) {
    findings.push_back(
        {"flowtable-bypass",
         Severity::warning,
         "flowtable " + *tried.outcome.flowtable,
         "The flowtable " + *tried.outcome.flowtable + " of the " + tableText(table) +
             " takes connections through mappings out of reach of all rules.",
         "They go on after their mapping is removed, until they end by themselves.",
         {"nft insert rule " + table.family + ' ' + table.name + ' ' + chain + " ct label 116 accept",
          "# to keep it: write 'ct label 116 accept' before the rule with the flowtable in "
          "/etc/nftables.conf"}});
}

}  // namespace

void judgeForwarding(const Facts& facts, Findings& findings) {
    judgeSettings(facts, findings);
    const auto& tables = facts.machine.tables;
    const bool marksAreZero =
        std::none_of(tables.begin(), tables.end(), [](const Table& one) { return one.setsMarks; });
    const std::vector<MappedFlow> flows = facts.flowsToTry();
    for (const Table& table : tables) {
        for (const auto& [name, chain] : table.chains) {
            if (!chain.isAtForward) continue;
            const Verdicts verdicts = tryChain(table, name, flows, marksAreZero);
            if (verdicts.dropped)
                judgeDrop(facts, table, name, *verdicts.dropped, findings);
            else if (verdicts.doubtful)
                judgeDoubt(facts, table, name, *verdicts.doubtful, findings);
            if (verdicts.offloaded) judgeOffload(table, name, *verdicts.offloaded, findings);
        }
    }
}

}  // namespace doctor
