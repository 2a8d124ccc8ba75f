#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace doctor {

/// How bad a finding is.
enum class Severity : std::uint8_t {
    error,    // keeps mappings from working
    warning,  // may do so, or is unsafe
    note,     // could not be looked at, or is worth knowing
};

/// Something that is not as it should be. A value.
struct Finding {
    std::string code;  // stable, for programs
    Severity severity = Severity::error;
    std::string subject;            // what it is about: an interface, a chain, a program
    std::string what;               // a sentence
    std::string why;                // why it matters, in a sentence or two
    std::vector<std::string> mend;  // lines to type; those that begin with # say what else to do

    bool operator==(const Finding&) const = default;
};

/// In the order in which they were found.
using Findings = std::vector<Finding>;

/// "error", "warning" or "note".
[[nodiscard]] const char* severityName(Severity severity);

/// Puts the worst findings first, and keeps the order of those that are equally bad.
void sortBySeverity(Findings& findings);

}  // namespace doctor
