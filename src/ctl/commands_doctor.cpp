#include "ctl/commands.h"

#include <CLI/App.hpp>

#include "ctl/busfacts.h"
#include "ctl/commandline.h"
#include "ctl/context.h"
#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/reportwriter.h"
#include "doctor/collect.h"
#include "doctor/judgements.h"

namespace ctl {

namespace {

Json findingToJson(const doctor::Finding& finding) {
    Json object;
    object["code"] = finding.code;
    object["severity"] = doctor::severityName(finding.severity);
    object["subject"] = finding.subject;
    object["what"] = finding.what;
    object["why"] = finding.why;
    object["mend"] = finding.mend;
    return object;
}

void examine(Context& context) {
    doctor::Facts facts;
    facts.bus = readBusFacts(context);
    facts.machine = doctor::lookAtMachine(facts.bus);
    const doctor::Findings findings = doctor::judge(facts);
    Json list = Json::array();
    for (const doctor::Finding& finding : findings) list.push_back(findingToJson(finding));
    context.print(list, reportText(findings, context.terminal));
    if (!findings.empty() && findings.front().severity == doctor::Severity::error)
        context.status = Status::failed;
}

}  // namespace

void addDoctorCommand(CLI::App& app, Context& context) {
    CLI::App& command =
        addCommand(app, context, "doctor",
                   "Find what would keep mappings from working, and how to mend it; status 1 when there is "
                   "anything",
                   [&context] { examine(context); });
    addExample(command, "--json");
}

}  // namespace ctl
