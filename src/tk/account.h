#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tk/status.h"

namespace tk {

/// A user of the system: all that a process needs to become that user. A value.
struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;      // all of them, `gid` included
    std::optional<gid_t> busGroup;  // that of findBusGroup(), as it was when the user was found

    bool operator==(const Account&) const = default;
};

// The next three look names up in a child process, one for each call. They wait for it, but not longer than
// 2 s: the system may ask a server. They fail if that has not answered by then, or there is no child, or
// no memory or descriptor for it.

/// Looks up a user by name. The value is empty when the system does not know the user.
[[nodiscard]] Result<std::optional<Account>> findAccount(const std::string& name);
/// Looks up the ids of users by their names: one for each, in order, and empty for one that the system does not
/// know. Costs less than findAccount(), as the groups of a user are looked up in more places than the user.
[[nodiscard]] Result<std::vector<std::optional<uid_t>>> findUsers(const std::vector<std::string>& names);
/// The bus's group, "tk", whose members may connect to it. The value is empty when the system does not have
/// that group.
[[nodiscard]] Result<std::optional<gid_t>> findBusGroup();

/// The account, added to the bus's group if the system had that group when the user was found.
[[nodiscard]] Account inBusGroup(Account account);

/// Makes the calling process run as that user, for good. Uses system calls only, so that it may be called
/// between a fork and an exec: it returns no Status, whose text takes memory.
/// Errors: false, with errno set; the process may then be half changed, and has to end.
[[nodiscard]] bool becomeAccount(const Account& account);

/// The mode of a folder that only its owner may enter, and that of one that everybody may.
constexpr mode_t ownFolder = 0700;
constexpr mode_t sharedFolder = 0755;

/// Gives the folder at `path`, and the files in it, to `account`; makes the folder, with that mode, and the one
/// above it, which everybody may enter, if they are absent. So a program that now runs as its own user can read
/// and replace what it once wrote as root. Links, subfolders and files with a second hard link keep their owner.
[[nodiscard]] Status giveFolder(const std::string& path, const Account& account, mode_t mode);

/// Takes all rights, for good, from a process that reads what strangers send. A process that root started
/// first gives the folders, its own, to the system's user `name`, then becomes that user, in that user's groups and the
/// bus's; if there is no such user it stays root's. A process of any other user stays as it is. Each then
/// gives up every capability, and no program that it starts could get one back.
/// Errors: the process has to end.
[[nodiscard]] Status giveUpRights(const std::string& name, const std::vector<std::string>& folders);

}  // namespace tk
