#pragma once

#include <string>

namespace tk {

/// Gives up every capability of this process for good, whoever runs it: no program that it would start could
/// get one back either. Errors: false, with the kernel's reason in `reason`.
[[nodiscard]] bool dropCapabilities(std::string& reason);

}  // namespace tk
