#pragma once

#include <map>
#include <string>
#include <vector>

#include "machine/links.h"

namespace setup {

/// Names of interfaces or networks, in an order that counts.
using Names = std::vector<std::string>;

/// True when the list holds the name.
[[nodiscard]] bool isIn(const Names& list, const std::string& name);

/// Appends a name that is not in the list yet.
void addOnce(Names& list, const std::string& name);

/// True for interfaces that carry packets inside other packets, and for those of virtual private networks.
[[nodiscard]] bool isTunnel(const machine::Link& link);

/// Which interfaces face the Internet, by the routes of all tables.
class Uplinks {
public:
    /// Lifetime: needs the machine only during the call.
    explicit Uplinks(const machine::Links& machine);

    /// The interfaces of the default route with the lowest metric. Tunnels do not count.
    [[nodiscard]] const Names& used() const { return best; }
    /// Why an interface is outside: it carries a route beyond the private ranges, or is below one that does.
    /// Empty when it is not.
    [[nodiscard]] std::string whyOutside(const std::string& interface) const;
    /// True when an interface carries a default route that is not the best one.
    [[nodiscard]] bool isFallback(const std::string& interface) const;

private:
    void findDefaults(const machine::Links& machine);
    void findPublicRoutes(const machine::Links& machine);
    void add(const machine::Links& machine, const std::string& interface, const std::string& why);

    Names best;
    Names withDefault;
    std::map<std::string, std::string> outside;  // why, by name
};

}  // namespace setup
