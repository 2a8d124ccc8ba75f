#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

#include "tk/message.h"
#include "tk/status.h"

namespace hub {

/// Tells the services of this process who makes the request.
class Requester {
public:
    virtual ~Requester() = default;
    /// The user whose request is being served; root when there is none, and for the router's own requests.
    [[nodiscard]] virtual uid_t user() const = 0;
};

/// What one user may do beyond what everybody on the bus may. A value.
struct UserRights {
    uid_t uid = 0;
    std::vector<std::uint32_t> programs = {};  // that it may register and answer for
    // Handlers that it may ask for anything except what is named below. A path of one element means a whole
    // program.
    std::vector<tk::Path> writes = {};
    bool traces = false;
    bool undoes = false;
    bool isAdmin = false;  // may do all of it

    bool operator==(const UserRights&) const = default;
};

/// The table of who may do what, by user, and the one place that decides. Root may do everything; all others
/// may do only what is granted. The users of the gateway daemon and of the resolver have rows of their own;
/// everybody else may look at most things. A value.
class Access {
public:
    Access() = default;
    /// A user that occurs several times has all of those rights.
    explicit Access(const std::vector<UserRights>& users);

    /// Decides whether the user may send the message, whose sender is stamped.
    /// Errors: a reason that continues the user's name: "may not ...: it needs ...".
    tk::Status check(uid_t user, const tk::message& sent) const;
    /// True for root, and for a user that may register any program.
    [[nodiscard]] bool runsPrograms(uid_t user) const;

private:
    [[nodiscard]] const UserRights& rightsOf(uid_t user) const;

    std::map<uid_t, UserRights> users;
};

}  // namespace hub
