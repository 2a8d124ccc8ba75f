#include "ctl/reportwriter.h"

#include <algorithm>

#include "tk/characters.h"

namespace ctl {

namespace {

Style styleOf(doctor::Severity severity) {
    switch (severity) {
        case doctor::Severity::error:
            return Style::bad;
        case doctor::Severity::warning:
            return Style::warning;
        case doctor::Severity::note:
            return Style::faint;
    }
    return Style::plain;
}

std::string findingText(const doctor::Finding& finding, const Terminal& terminal) {
    std::string text = terminal.paint(styleOf(finding.severity), doctor::severityName(finding.severity)) +
                       ": " + terminal.paint(Style::strong, tk::printable(finding.what)) + '\n' + "  " +
                       tk::printable(finding.why) + '\n';
    if (!finding.mend.empty()) text += "  Mend:\n";
    for (const std::string& line : finding.mend) text += "    " + tk::printable(line) + '\n';
    return text + '\n';
}

std::size_t countOf(const doctor::Findings& findings, doctor::Severity severity) {
    const auto isSuch = [&](const doctor::Finding& finding) { return finding.severity == severity; };
    return static_cast<std::size_t>(std::count_if(findings.begin(), findings.end(), isSuch));
}

std::string numberOf(std::size_t count, const std::string& things) {
    return std::to_string(count) + ' ' + things + (count == 1 ? "" : "s");
}

}  // namespace

std::string reportText(const doctor::Findings& findings, const Terminal& terminal) {
    std::string text;
    for (const doctor::Finding& finding : findings) text += findingText(finding, terminal);
    const std::size_t problems = countOf(findings, doctor::Severity::error),
                      warnings = countOf(findings, doctor::Severity::warning);
    if (problems + warnings > 0)
        return text + numberOf(problems, "problem") + ", " + numberOf(warnings, "warning") + '\n';
    const auto isUnseen = [](const doctor::Finding& finding) { return finding.code == "not-seen"; };
    if (std::any_of(findings.begin(), findings.end(), isUnseen))
        return text + "Nothing found, but not everything could be looked at.\n";
    return text + terminal.paint(Style::good, "Nothing found that would keep mappings from working.") + '\n';
}

}  // namespace ctl
