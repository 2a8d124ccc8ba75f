#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "tk/message.h"

namespace router {

/// What one user may do beyond calling others. A value.
struct UserRights {
    uid_t uid = 0;
    std::vector<std::uint32_t> programs;  // numbers that it may register
    std::vector<tk::Path> writes;         // where it may change something: these handlers of routerd's, and
                                          // with a path of one element all of that program

    bool operator==(const UserRights&) const = default;
};

/// The table of who may do what. Root may do everything. A value.
class Access {
public:
    Access() = default;
    explicit Access(std::vector<UserRights> users) : users(std::move(users)) {}

    /// True when the user may register the program's number.
    [[nodiscard]] bool mayRegister(uid_t user, std::uint32_t program) const;
    /// True for root, and for a user that may register any program.
    [[nodiscard]] bool runsPrograms(uid_t user) const;
    /// True when the user may send the request: what only asks is everybody's, and so is what goes to another
    /// program than the network services.
    [[nodiscard]] bool maySend(uid_t user, const tk::message& request) const;

    bool operator==(const Access&) const = default;

private:
    std::vector<UserRights> users;
};

}  // namespace router
