#pragma once

#include <sys/types.h>

#include <vector>

#include "hub/access.h"
#include "tk/message.h"

namespace fuzz {

/// Who may do what, read from the table in docs/bus.md and from nothing else. True when `user` may send
/// `sent`, whose sender is stamped.
bool may(const std::vector<hub::UserRights>& table, uid_t user, const tk::message& sent);

}  // namespace fuzz
