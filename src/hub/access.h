#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

#include "tk/message.h"
#include "tk/status.h"

namespace hub {

/// Tells the services of this process who asks.
class Requester {
public:
    virtual ~Requester() = default;
    /// The user whose request is being served; root outside of any, and where the router asks itself.
    [[nodiscard]] virtual uid_t user() const = 0;
};

/// What one user may do beyond what everybody may who is on the bus. A value.
struct UserRights {
    uid_t uid = 0;
    std::vector<std::uint32_t> programs = {};  // numbers that it may register, and answer for
    // Handlers, and with a path of one element whole programs, of which it may ask anything but what is named
    // below.
    std::vector<tk::Path> writes = {};
    bool traces = false;
    bool undoes = false;
    bool isAdmin = false;  // all of it

    bool operator==(const UserRights&) const = default;
};

/// The table of who may do what, by user, and the one place that decides. Root may do everything; for all
/// others what is not granted is refused. The users of the gateway daemon and of the resolver have rows of
/// their own, everybody else may look at most things. A value.
class Access {
public:
    Access() = default;
    /// A user that stands several times may do all that is said of it.
    explicit Access(const std::vector<UserRights>& users);

    /// May the user send the message, whose sender is stamped?
    /// Errors: the reason goes on after the user's name, "may not ...: it needs ...".
    tk::Status check(uid_t user, const tk::message& sent) const;
    /// True for root, and for a user that may register any program.
    [[nodiscard]] bool runsPrograms(uid_t user) const;

private:
    [[nodiscard]] const UserRights& rightsOf(uid_t user) const;

    std::map<uid_t, UserRights> users;
};

}  // namespace hub
