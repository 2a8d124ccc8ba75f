#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tk/status.h"

namespace tk {

/// A user of the system, as a process needs it to become that user. A value.
struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // all of them, the first one too

    bool operator==(const Account&) const = default;
};

/// Looks a user up by name.
/// Errors: none for one that the system does not know.
[[nodiscard]] std::optional<Account> findAccount(const std::string& name);

/// The account in the group of the bus too, "tk", where the system has it.
[[nodiscard]] Account inBusGroup(Account account);

/// Makes the calling process that user's for good.
/// Errors: false, with errno set; the process may be half changed then, and has to end.
/// Nothing but system calls happens here, so that it may stand between a fork and an exec.
[[nodiscard]] bool becomeAccount(const Account& account);

/// Makes the folder at `path`, if it is absent, and the one above it, and gives it to `account`, with the
/// files in it: what a program that ran as root has written there is read and replaced by one that runs as a
/// user of its own. Links, folders in it, and files that have another name elsewhere stay whose they are.
[[nodiscard]] Status giveFolder(const std::string& path, const Account& account);

/// Makes a process that reads what strangers send one that can do nothing else, for good: one that root
/// started becomes the system's user `name`, in that user's groups and that of the bus, and the folders are
/// given to it before; where there is no such user it stays root's. A process of anybody else stays whose it
/// is. Then it gives up every capability, and no program that it would start could get one back either.
/// Errors: the process has to end then.
[[nodiscard]] Status giveUpRights(const std::string& name, const std::vector<std::string>& folders);

}  // namespace tk
