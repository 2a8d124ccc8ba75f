#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tk/message.h"

namespace router {

/// What one user may do beyond what everybody may who is on the bus. A value.
struct UserRights {
    uid_t uid = 0;
    std::vector<std::uint32_t> programs = {};  // numbers that it may register, and answer for
    std::vector<tk::Path> writes = {};         // handlers, and with a path of one element whole programs, of
                                               // which it may ask anything, except for what is named below
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

    /// Why the user may not send the message, whose sender is stamped: text that goes on behind the user's
    /// name, "may not ..., it needs ...". Empty where it may.
    [[nodiscard]] std::string whyRefused(uid_t user, const tk::message& sent) const;
    /// True for root, and for a user that may register any program.
    [[nodiscard]] bool runsPrograms(uid_t user) const;

private:
    [[nodiscard]] const UserRights& rightsOf(uid_t user) const;

    std::map<uid_t, UserRights> users;
};

}  // namespace router
