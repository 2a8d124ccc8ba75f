#include "doctor/judgements.h"

namespace doctor {

namespace {

void noteUnseen(const Facts& facts, Findings& findings) {
    for (const Unseen& unseen : facts.machine.unseen)
        findings.push_back({"not-seen", Severity::note, unseen.what,
                            "Could not look at " + unseen.what + ": " + unseen.why + '.',
                            "What is wrong there is not found.",
                            unseen.mend.empty() ? std::vector<std::string>() : std::vector{unseen.mend}});
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
