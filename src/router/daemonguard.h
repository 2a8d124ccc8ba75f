#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "hub/access.h"
#include "hub/hub.h"
#include "hub/processes.h"

namespace router {

/// Has the users guarded that are the gateway daemon or may be: before they are, when they never are, and after
/// they were, for leaving the bus sets nobody free.
class DaemonGuard final : public hub::ProgramWatcher {
public:
    /// `guardUser` limits where a user's programs may connect; a user may be given to it several times.
    explicit DaemonGuard(std::function<void(uid_t)> guardUser) : guardUser(std::move(guardUser)) {}

    /// Guards whoever the configuration allows to be the daemon.
    void start(const std::vector<hub::ProgramConfig>& programs, const std::vector<hub::UserRights>& users);
    void programComes(std::uint32_t program, uid_t user) override;

private:
    std::function<void(uid_t)> guardUser;
};

}  // namespace router
