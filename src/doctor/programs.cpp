#include "contract/programs.h"

#include <algorithm>

#include "doctor/judgements.h"

namespace doctor {

namespace {

struct Known {
    std::uint32_t number;
    const char* name;
};
constexpr Known known[] = {{contract::program::network, "routerd"},
                           {contract::program::gateway, "upnpd"},
                           {contract::program::resolver, "resolverd"}};

void judgeAnswers(const BusFacts& bus, Findings& findings) {
    if (!bus.routerAnswers)
        findings.push_back({"router-silent",
                            Severity::error,
                            "routerd",
                            bus.routerSilence + '.',
                            "Without routerd there is no gateway and no mapping.",
                            {"systemctl restart routerd", "# without systemd: start routerd as root"}});
    else if (!bus.daemonAnswers)
        findings.push_back(
            {"daemon-silent",
             Severity::error,
             "upnpd",
             bus.daemonSilence + '.',
             "Nobody in the LAN finds the gateway, and all mappings are gone.",
             {"systemctl restart upnpd",
              "# without systemd: name upnpd in a [[program]] of router.toml, or start it as root"}});
}

void judgeUser(const ProgramFact& program, const char* name, Findings& findings) {
    const bool isDaemon = program.number == contract::program::gateway;
    if (program.user != 0) return;
    findings.push_back(
        {"runs-as-root",
         Severity::warning,
         name,
         std::string(name) + " runs as root.",
         isDaemon ? "It reads what any host in the LAN sends. As root it is not guarded, and hosts in the "
                    "LAN can map the router's own ports."
                  : "A fault in it would give away the whole router.",
         {"# give it a user of its own: [[program]] user, or [router] user for routerd, in router.toml; "
          "then restart routerd"}});
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

void judgeVersion(const ProgramFact& program, const char* name, const std::string& ownVersion,
                  Findings& findings) {
    if (program.version.empty() || program.version == ownVersion) return;
    findings.push_back(
        {"version-differs",
         Severity::warning,
         name,
         std::string(name) + " has version " + program.version + ", and tkctl " + ownVersion + '.',
         "The programs are made for each other, and only those of one version are tried together.",
         {"systemctl restart " + std::string(name), "# if that does not help, install all programs again"}});
}

}  // namespace

void judgePrograms(const Facts& facts, Findings& findings) {
    judgeAnswers(facts.bus, findings);
    for (const Known& one : known) {
        const ProgramFact* program = facts.program(one.number);
        if (!program) continue;
        judgeUser(*program, one.name, findings);
        judgeVersion(*program, one.name, facts.bus.ownVersion, findings);
    }
    if (const ProgramFact* daemon = facts.program(contract::program::gateway))
        judgeGuard(facts, *daemon, findings);
}

}  // namespace doctor
