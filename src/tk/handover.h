#pragma once

#include <string>

#include "tk/account.h"

namespace tk {

/// Makes the folder at `path`, if it is absent, and the one above it, and gives it to `account`, with the
/// files in it: what a program that ran as root has written there is read and replaced by one that runs as a
/// user of its own. Links, folders in it, and files that have another name elsewhere stay whose they are.
/// Errors: false, with errno set.
[[nodiscard]] bool handOver(const std::string& path, const Account& account);

}  // namespace tk
