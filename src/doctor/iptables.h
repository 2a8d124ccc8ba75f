#pragma once

#include <string>
#include <vector>

#include "doctor/ruleset.h"

namespace doctor {

/// Reads what "iptables-save -c" prints. A line that cannot be read becomes a condition that is not known.
[[nodiscard]] std::vector<Table> readIptables(const std::string& saved, Keeper keeper);

}  // namespace doctor
