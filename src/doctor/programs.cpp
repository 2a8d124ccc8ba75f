#include "contract/programs.h"

#include <algorithm>

#include "doctor/judgements.h"
#include "machine/tool.h"

namespace doctor {

namespace {

struct Known {
    std::uint32_t number;
    const char* name;
};
constexpr Known known[] = {{contract::program::network, "routerd"},
                           {contract::program::gateway, "upnpd"},
                           {contract::program::resolver, "resolverd"}};

/// Starts a program of the router; systemd ends one that hangs first.
std::string startLine(const MachineFacts& facts, const std::string& name) {
    if (facts.hasSystemd) return "systemctl restart " + name;
    const std::string folder = facts.programFolder.empty() ? "/usr/sbin" : facts.programFolder;
    return machine::startLine(folder + '/' + name);
}

/// Starts a program again that runs.
std::string restartLine(const MachineFacts& machine, const std::string& name) {
    return machine.hasSystemd ? "systemctl restart " + name : "# end " + name + " and start it again";
}

void judgeSilentDaemon(const Facts& facts, Findings& findings) {
    const ProgramFact* daemon = facts.program(contract::program::gateway);
    std::vector<std::string> mend{startLine(facts.machine, "upnpd")};
    if (daemon && !facts.machine.hasSystemd)
        mend = {"kill -KILL " + std::to_string(daemon->pid), "tkctl upnp get  # routerd starts it for this"};
    findings.push_back({"daemon-silent", Severity::error, "upnpd", facts.bus.daemonSilence + '.',
                        daemon ? "Nobody in the LAN finds the gateway, and mappings cannot be changed; those "
                                 "that exist go on."
                               : "Nobody in the LAN finds the gateway, and all mappings are gone.",
                        mend});
}

void judgeConfig(const Facts& facts, Findings& findings) {
    const ConfigFacts& config = facts.machine.config;
    if (config.fault.empty()) return;
    const bool runs = facts.bus.routerAnswers;
    std::vector<std::string> mend{"# mend " + config.path + "; this prints nothing when it is good:",
                                  config.command};
    if (runs) mend.emplace_back("tkctl reload");
    findings.push_back({"config-broken", Severity::error, config.path, config.fault + '.',
                        runs ? "routerd goes on with what it read before, but would not start again."
                             : "routerd does not start with it.",
                        mend});
}

/// The mend begins with the file where that keeps routerd from starting.
void judgeRouter(const Facts& facts, Findings& findings) {
    if (!facts.bus.mayAsk) {
        findings.push_back({"router-silent",
                            Severity::error,
                            "routerd",
                            facts.bus.routerSilence + '.',
                            "Nothing that routerd and upnpd tell is known here.",
                            {"sudo tkctl doctor", "# or, as root, for good: usermod -aG tk USER"}});
        return;
    }
    std::vector<std::string> mend;
    if (const ConfigFacts& config = facts.machine.config; !config.fault.empty())
        mend = {"# first mend " + config.path + "; this prints nothing when it is good:", config.command};
    if (!facts.machine.hasSystemd) mend.emplace_back("# as root; if a routerd hangs, end it first:");
    mend.push_back(startLine(facts.machine, "routerd"));
    findings.push_back({"router-silent", Severity::error, "routerd", facts.bus.routerSilence + '.',
                        "Without routerd there is no gateway and no mapping.", mend});
}

void judgeAnswers(const Facts& facts, Findings& findings) {
    const BusFacts& bus = facts.bus;
    if (!bus.routerAnswers)
        judgeRouter(facts, findings);
    else if (!bus.daemonAnswers && bus.daemonRefusal.empty())
        judgeSilentDaemon(facts, findings);
}

std::vector<std::string> mendUser(const Facts& facts, const ProgramFact& program, const char* name) {
    const std::string file = facts.machine.config.path;
    if (program.number == contract::program::network)
        return {"# give it a user of its own: [router] user in " + file + "; then:",
                restartLine(facts.machine, name)};
    return {"# give it a user of its own: user in its [[program]] in " + file + "; then:", "tkctl reload",
            std::string("# then end ") + name + " (process " + std::to_string(program.pid) +
                "): its next start is as that user"};
}

void judgeUser(const Facts& facts, const ProgramFact& program, const char* name, Findings& findings) {
    const bool isDaemon = program.number == contract::program::gateway;
    if (program.user != 0) return;
    findings.push_back(
        {"runs-as-root", Severity::warning, name, std::string(name) + " runs as root.",
         isDaemon ? "It reads what any host in the LAN sends. As root it is not guarded, and hosts in the "
                    "LAN can map the router's own ports."
                  : "A fault in it would give away the whole router.",
         mendUser(facts, program, name)});
}

void judgeGuard(const Facts& facts, const ProgramFact& daemon, Findings& findings) {
    const auto& users = facts.machine.guardedUsers;
    if (daemon.user == 0 || !users) return;
    if (std::find(users->begin(), users->end(), daemon.user) != users->end()) return;
    findings.push_back(
        {"guard-off",
         Severity::warning,
         "upnpd",
         "Nothing limits where upnpd can connect.",
         "Hosts in the LAN can make it send to addresses that they choose, on the Internet too.",
         {"# in " + facts.machine.config.path + ": [guard] limit-connections = true; then:",
          "tkctl reload"}});
}

void judgeVersion(const Facts& facts, const ProgramFact& program, const char* name, Findings& findings) {
    const std::string& ownVersion = facts.bus.ownVersion;
    if (program.version.empty() || program.version == ownVersion) return;
    findings.push_back(
        {"version-differs",
         Severity::warning,
         name,
         std::string(name) + " has version " + program.version + ", and tkctl " + ownVersion + '.',
         "The programs are made for each other, and only those of one version are tried together.",
         {restartLine(facts.machine, name), "# if that does not help, install all programs again"}});
}

}  // namespace

void judgePrograms(const Facts& facts, Findings& findings) {
    judgeConfig(facts, findings);
    judgeAnswers(facts, findings);
    for (const Known& one : known) {
        const ProgramFact* program = facts.program(one.number);
        if (!program) continue;
        judgeUser(facts, *program, one.name, findings);
        judgeVersion(facts, *program, one.name, findings);
    }
    if (const ProgramFact* daemon = facts.program(contract::program::gateway))
        judgeGuard(facts, *daemon, findings);
}

}  // namespace doctor
