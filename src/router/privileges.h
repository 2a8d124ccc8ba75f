#pragma once

#include <string>
#include <vector>

#include "tk/account.h"
#include "tk/status.h"

namespace router {

/// Gives up root's rights for good. The folders are handed to the account first. Then the process becomes the
/// account, in its groups and in "tk", and keeps only CAP_NET_ADMIN. A process that is not root's stays as it
/// is.
/// Errors: when the system refuses. The process may then be half changed.
tk::Status dropPrivileges(const tk::Account& account, const std::vector<std::string>& folders);

/// Checks that the process may change the network.
/// Errors: it may not; the reason says what to do.
tk::Status checkPrivileges();

}  // namespace router
