#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "contract/interfaces.h"
#include "links/kernel.h"
#include "links/prefix.h"

namespace links {

/// What the configuration says about the router's inside. A value.
struct LanConfig {
    std::optional<std::vector<std::string>> interfaces;  // inside; none: routes decide
    std::vector<Prefix> networks;                        // inside, not directly connected

    bool operator==(const LanConfig&) const = default;
};

using contract::Side;

/// What is inside: the interfaces, by index, and the addresses of the hosts. A value.
struct Inside {
    std::set<std::uint32_t> interfaces;
    std::vector<AddressRange> addresses;

    bool operator==(const Inside&) const = default;
};

/// Hears what is inside, whenever that changes.
class InsideWatcher {
public:
    virtual ~InsideWatcher() = default;
    virtual void insideChanged(const Inside& inside) = 0;
};

/// Knows which interfaces and addresses are inside and which outside. Whoever has to know asks here.
/// If the configuration names the inside interfaces, all others are outside. If it does not, an interface is
/// outside when it carries, or once carried, a route beyond the private ranges, and so are the devices below
/// it: an interface does not become inside because its routes went. These interfaces are remembered by name,
/// as one that comes back has another index. Loopback is neither.
///
/// Inside addresses are the networks of the inside interfaces that are up, and those of the configuration,
/// except for smaller or equal networks of outside interfaces.
class Zones {
public:
    // Not /proc/net, which is absent where /proc shows nothing but processes.
    static constexpr const char* usualPppoeSessions = "/proc/self/net/pppoe";

    /// `pppoeSessions` is the kernel's list of PPPoE sessions, which names the Ethernet devices below them.
    explicit Zones(LanConfig config = {}, std::string pppoeSessions = usualPppoeSessions);

    /// Follows this configuration from now on. If it names no interfaces, the zones have to be told of the routes
    /// first.
    void setConfig(LanConfig configured);
    /// True when the zones need to be told of routes.
    bool dependsOnRoutes() const { return !config.interfaces; }
    /// Tells the watcher what is inside, and from now on each change, before the function that makes it
    /// returns.
    /// Lifetime: the watcher outlives the use of the object.
    void start(InsideWatcher& watcher);

    /// The kernel has this interface or address, or no longer has it.
    void apply(const Link& link);
    void removeLink(std::uint32_t index);
    void apply(const LinkAddress& address);
    void remove(const LinkAddress& address);
    /// Takes full lists.
    void applyAll(const std::vector<Link>& links, const std::vector<LinkAddress>& addresses);
    /// Routes beyond the private ranges lead out of these interfaces; each index comes with one of their
    /// destinations. The interface itself may become known later.
    void addExits(const std::map<std::uint32_t, Prefix>& exits);

    /// The side of an interface; neither for an unknown one.
    [[nodiscard]] Side sideOf(std::uint32_t index) const;
    /// Why the interface is on that side, for people.
    [[nodiscard]] std::string whyOf(std::uint32_t index) const;

    // Byte order of the addresses below: network.
    /// True for the address of an inside host, or of the router in an inside network.
    [[nodiscard]] bool isInside(std::uint32_t address) const;
    /// Why an address is not inside, for people.
    [[nodiscard]] std::string whyOutside(std::uint32_t address) const;
    /// True for an address of the router, on any interface and of any scope.
    [[nodiscard]] bool isOwn(std::uint32_t address) const;
    /// The indexes of the outside interfaces that hold this address of the router.
    [[nodiscard]] std::vector<std::uint32_t> outsideHoldersOf(std::uint32_t address) const;
    /// True for the first, or the last, address of a network that gives these two to no host.
    [[nodiscard]] bool isNetworkAddress(std::uint32_t address) const;
    [[nodiscard]] bool isBroadcastAddress(std::uint32_t address) const;

private:
    [[nodiscard]] Side sideOf(const Link& link) const;
    [[nodiscard]] bool isMarked(std::uint32_t index) const;
    bool mark(const Link& link, const std::string& why);
    void markExits();
    [[nodiscard]] bool markLowerDevices();
    [[nodiscard]] bool markBelow(const Link& link);
    [[nodiscard]] std::vector<AddressRange> insideAddresses() const;
    void settle();

    LanConfig config;
    const std::string pppoeSessions;
    InsideWatcher* watcher = nullptr;
    std::unordered_map<std::uint32_t, Link> links;  // by index
    std::set<LinkAddress> held;
    std::map<std::uint32_t, Prefix> exits;     // by index: a route's destination
    std::map<std::string, std::string> marks;  // by name: why it is outside for good
    Inside inside;                             // as the watcher was told
};

}  // namespace links
