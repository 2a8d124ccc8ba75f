#pragma once

#include <string>

#include "ctl/terminal.h"
#include "doctor/finding.h"

namespace ctl {

/// The findings for people: what, why, and the lines that mend it, indented so that they can be copied. A
/// last line counts them.
[[nodiscard]] std::string reportText(const doctor::Findings& findings, const Terminal& terminal = {});

}  // namespace ctl
