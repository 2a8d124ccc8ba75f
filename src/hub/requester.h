#pragma once

#include <sys/types.h>

namespace router {

/// Tells the services of this process who asks.
class Requester {
public:
    virtual ~Requester() = default;
    /// The user whose request is being served; root outside of any, and where the router asks itself.
    [[nodiscard]] virtual uid_t user() const = 0;
};

}  // namespace router
