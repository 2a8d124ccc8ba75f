#pragma once

#include <string>

#include "router/account.h"

namespace router {

/// Makes the folder at `path`, if it is absent, and gives it to `account`, with the files in it: what a
/// router that ran as root has written there is read and replaced by one that runs as a user of its own.
/// Links, folders in it, and files that have another name elsewhere stay whose they are.
/// Errors: false, with errno set.
[[nodiscard]] bool handOver(const std::string& path, const Account& account);

}  // namespace router
