#include "doctor/judgements.h"

namespace doctor {

namespace {

void note(const Unseen& unseen, Findings& findings) {
    findings.push_back({"not-seen", Severity::note, unseen.what,
                        "Could not look at " + unseen.what + ": " + unseen.why + '.',
                        "What is wrong there is not found.",
                        unseen.mend.empty() ? std::vector<std::string>() : std::vector{unseen.mend}});
}

void noteUnseen(const Facts& facts, Findings& findings) {
    if (!facts.bus.rulesSilence.empty()) note({"the mappings", facts.bus.rulesSilence, ""}, findings);
    if (!facts.bus.daemonRefusal.empty())
        note({"the settings and roles", facts.bus.daemonRefusal, "sudo tkctl doctor"}, findings);
    for (const Unseen& unseen : facts.machine.unseen) note(unseen, findings);
}

}  // namespace

Findings judge(const Facts& facts) {
    constexpr void (*all[])(const Facts&, Findings&) = {
        judgePrograms, judgeRoles, judgeLinks,     judgeUpstream, judgeForwarding,
        judgeRouting,  judgePorts, judgeDiscovery, judgeStores,   noteUnseen};
    Findings findings;
    for (const auto judgement : all) judgement(facts, findings);
    sortBySeverity(findings);
    return findings;
}

}  // namespace doctor
