#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tk {

/// A user of the system, as a process needs it to become that user. A value.
struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // all of them, the first one too

    bool operator==(const Account&) const = default;
};

/// Looks a user up by name. Errors: none for one that the system does not know.
[[nodiscard]] std::optional<Account> findAccount(const std::string& name);

/// The account in the group of the bus too, "tk", where the system has it.
[[nodiscard]] Account inBusGroup(Account account);

/// Makes the calling process that user's for good. Errors: false, with errno set; the process may be half
/// changed then, and has to end.
/// Nothing but system calls happens here, so that it may stand between a fork and an exec.
[[nodiscard]] bool becomeAccount(const Account& account);

}  // namespace tk
