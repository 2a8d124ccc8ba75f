#include "router/access.h"

#include <algorithm>
#include <iterator>

#include "tk/names.h"

namespace router {

namespace {

constexpr uid_t root = 0;

// Of the network services: what changes nothing. 1 and 2 are their own, the paged list and the test of a
// rule.
constexpr std::uint32_t readings[] = {
    1,
    2,
    tk::command::getPolicies,
    tk::command::getObject,
    tk::command::getAll,
    tk::command::get,
    tk::command::getCount,
};

bool onlyAsks(std::uint32_t command) {
    return std::find(std::begin(readings), std::end(readings), command) != std::end(readings);
}

/// True when `path` is what is granted, or lies within it. A path of one element means handler 0 where
/// something is sent, and the whole program where it is granted.
bool isWithin(const tk::Path& path, const tk::Path& granted) {
    if (granted.empty() || path.empty() || path.front() != granted.front()) return false;
    const std::uint32_t handler = path.size() > 1 ? path[1] : 0;
    return granted.size() == 1 || granted[1] == handler;
}

}  // namespace

bool Access::mayRegister(uid_t user, std::uint32_t program) const {
    return user == root || std::any_of(users.begin(), users.end(), [&](const UserRights& rights) {
               return rights.uid == user && std::find(rights.programs.begin(), rights.programs.end(),
                                                      program) != rights.programs.end();
           });
}

bool Access::runsPrograms(uid_t user) const {
    return user == root || std::any_of(users.begin(), users.end(), [user](const UserRights& rights) {
               return rights.uid == user && !rights.programs.empty();
           });
}

bool Access::maySend(uid_t user, const tk::message& request) const {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (user == root || to.empty() || to.front() != tk::program::network) return true;
    if (onlyAsks(request.get_u32(tk::field::command))) return true;
    return std::any_of(users.begin(), users.end(), [&](const UserRights& rights) {
        return rights.uid == user &&
               std::any_of(rights.writes.begin(), rights.writes.end(),
                           [&to](const tk::Path& granted) { return isWithin(to, granted); });
    });
}

}  // namespace router
