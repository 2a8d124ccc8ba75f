#pragma once

#include <string>
#include <vector>

#include "tk/account.h"
#include "tk/status.h"

namespace router {

/// Gives up what root may do, for good: the process is the account's from now on, in its groups and in "tk",
/// and has CAP_NET_ADMIN alone. The folders become that user's before. A process that is not root's is left as
/// it is.
/// Errors: when the system refuses; the process may be half changed then.
tk::Status dropPrivileges(const tk::Account& account, const std::vector<std::string>& folders);

}  // namespace router
