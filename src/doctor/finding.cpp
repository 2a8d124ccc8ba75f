#include "doctor/finding.h"

#include <algorithm>

namespace doctor {

const char* severityName(Severity severity) {
    switch (severity) {
        case Severity::error:
            return "error";
        case Severity::warning:
            return "warning";
        case Severity::note:
            return "note";
    }
    return "";
}

void sortBySeverity(Findings& findings) {
    std::stable_sort(findings.begin(), findings.end(), [](const Finding& left, const Finding& right) {
        return left.severity < right.severity;
    });
}

}  // namespace doctor
