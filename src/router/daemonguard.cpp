#include "router/daemonguard.h"

#include <algorithm>

#include "contract/programs.h"
#include "tk/log.h"

namespace router {

void DaemonGuard::setUsers(const std::vector<hub::UserRights>& users) {
    for (const hub::UserRights& user : users)
        if (std::find(user.programs.begin(), user.programs.end(), contract::program::gateway) !=
            user.programs.end())
            programComes(contract::program::gateway, user.uid);
}

void DaemonGuard::programComes(std::uint32_t program, uid_t user) {
    if (program != contract::program::gateway) return;
    if (user != 0) return guardUser(user);
    tk::log("program ", program, " runs as root: what it asks for is not checked, and nothing guards it");
}

}  // namespace router
