#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "hub/access.h"

namespace router {

/// Makes sure that every user who is or may become the gateway daemon is guarded. The guard begins before the
/// user registers, and leaving the bus does not end it.
class DaemonGuard {
public:
    /// `guardUser` limits where a user's programs may send. It may be called several times for a user.
    explicit DaemonGuard(std::function<void(uid_t)> guardUser) : guardUser(std::move(guardUser)) {}

    /// Guards every user who may be the daemon, from now on.
    void setUsers(const std::vector<hub::UserRights>& users);
    /// Guards the user when the program is the daemon.
    void programComes(std::uint32_t program, uid_t user);

private:
    std::function<void(uid_t)> guardUser;
};

}  // namespace router
