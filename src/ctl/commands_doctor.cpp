#include "ctl/commands.h"

#include <memory>

#include <CLI/App.hpp>

#include "ctl/busfacts.h"
#include "ctl/commandline.h"
#include "ctl/commands.h"
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

void examine(Context& context, bool searches) {
    doctor::Facts facts;
    facts.bus = readBusFacts(context);
    facts.machine = doctor::lookAtMachine(facts.bus, searches);
    const doctor::Findings findings = doctor::judge(facts);
    Json list = Json::array();
    for (const doctor::Finding& finding : findings) list.push_back(findingToJson(finding));
    context.print(list, reportText(findings, context.terminal));
    if (!findings.empty() && findings.front().severity == doctor::Severity::error)
        context.status = Status::failed;
}

}  // namespace

void addDoctorCommand(CLI::App& app, Context& context) {
    auto isQuiet = std::make_shared<bool>(false);
    CLI::App& command = addCommand(
        app, context, "doctor",
        "Find what would keep mappings from working, and how to mend it. Status 1: something keeps mappings "
        "from working",
        [&context, isQuiet] { examine(context, !*isQuiet); });
    addExample(command, "--json");
    command.add_flag("--no-search", *isQuiet,
                     "Send nothing into the LAN: other gateways there are not found");
}

}  // namespace ctl
