#pragma once

#include "router/netlinksocket.h"
#include "tk/fd.h"

namespace router {

/// Knows whether anything besides the router's table translates destinations in this network namespace.
class OtherDnat {
public:
    /// Opens what root alone may read of it, to be read later by whoever the process is then.
    OtherDnat();

    /// True when there is such a chain, or a table of the older kind, or when that cannot be told.
    [[nodiscard]] bool mayBe() const;

private:
    [[nodiscard]] bool mayBeInOldTables() const;

    tk::Fd oldTables;
    bool hasOldTables;  // the kernel knows that kind
};

}  // namespace router
