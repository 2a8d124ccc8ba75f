#pragma once

#include <string>

#include "tk/account.h"
#include "tk/status.h"

namespace router {

/// Gives up root's rights for good. The folders of the bus and of the stores are handed to the account first:
/// everybody may enter the one, and only the account the other. Then the process becomes the account, in its
/// groups and in "tk", and keeps only CAP_NET_ADMIN. A process that is not root's stays as it is.
/// Errors: when the system refuses. The process may then be half changed.
tk::Status dropPrivileges(const tk::Account& account, const std::string& bus, const std::string& stores);

/// Checks that the process may change the network.
/// Errors: it may not; the reason says what to do.
tk::Status checkPrivileges();

}  // namespace router
