#pragma once

#include <string>
#include <vector>

namespace tk {

/// Makes a process that reads what strangers send one that can do nothing else, for good: one that root
/// started becomes the system's user `name`, in that user's groups and that of the bus, and the folders are
/// given to it before; where there is no such user it stays root's. A process of anybody else stays whose it
/// is. Then it gives up every capability, and no program that it would start could get one back either.
/// Errors: false, with the reason in `reason`; the process has to end then.
[[nodiscard]] bool giveUpRights(const std::string& name, const std::vector<std::string>& folders,
                                std::string& reason);

}  // namespace tk
