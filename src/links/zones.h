#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "links/kernel.h"
#include "links/prefix.h"

namespace links {

/// What the configuration says of the router's inside. A value.
struct LanConfig {
    std::optional<std::vector<std::string>> interfaces;  // the inside ones; none given: routes tell
    std::vector<Prefix> networks;                        // inside too, though not directly connected

    bool operator==(const LanConfig&) const = default;
};

/// The side of the router that an interface stands on, with its number on the bus.
enum class Side : std::uint32_t { neither = 0, inside = 1, outside = 2 };

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

/// Knows which interfaces and addresses are inside and which outside. Everybody who has to know asks here.
///
/// The configuration names the inside interfaces; all others are outside then. Where it names none, those are
/// outside that carry, or once carried, a route beyond the private ranges, and the devices below them: an
/// interface does not come inside because its routes went. They are remembered by name, for one that comes
/// back does so under another index. Loopback is neither.
///
/// Inside addresses are the networks of the inside interfaces that are up, and those of the configuration,
/// less the smaller or equal networks of outside interfaces.
class Zones {
public:
    static constexpr const char* usualPppoeSessions = "/proc/net/pppoe";

    /// `pppoeSessions` is the kernel's list, which names the Ethernet devices below.
    explicit Zones(LanConfig config = {}, std::string pppoeSessions = usualPppoeSessions);

    /// True when routes have to be told.
    bool dependsOnRoutes() const { return !config.interfaces; }
    /// Tells the watcher what is inside, and from now on all changes, before the functions below return.
    /// Lifetime: the watcher outlives the use of the object.
    void start(InsideWatcher& watcher);

    /// Takes over that the kernel has, or has no more, an interface or an address.
    void apply(const Link& link);
    void removeLink(std::uint32_t index);
    void apply(const LinkAddress& address);
    void remove(const LinkAddress& address);
    /// Takes over full lists.
    void applyAll(const std::vector<Link>& links, const std::vector<LinkAddress>& addresses);
    /// Routes beyond the private ranges lead out of these interfaces: for each index one of their
    /// destinations. The interface itself may become known later.
    void addExits(const std::map<std::uint32_t, Prefix>& exits);

    /// Neither for an interface that is not known.
    [[nodiscard]] Side sideOf(std::uint32_t index) const;
    /// Why it stands there, for people.
    [[nodiscard]] std::string whyOf(std::uint32_t index) const;

    // Byte order of addresses: network.
    /// True for the address of a host inside, or of the router in a network there.
    [[nodiscard]] bool isInside(std::uint32_t address) const;
    /// Why an address is not inside, for people.
    [[nodiscard]] std::string whyOutside(std::uint32_t address) const;
    /// True for an address of the router, on whatever interface and of whatever scope.
    [[nodiscard]] bool isOwn(std::uint32_t address) const;
    /// The outside interfaces, by index, that hold an address of the router's.
    [[nodiscard]] std::vector<std::uint32_t> outsideHoldersOf(std::uint32_t address) const;
    /// True for the first, or the last, address of a network that has addresses for neither.
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

    const LanConfig config;
    const std::string pppoeSessions;
    InsideWatcher* watcher = nullptr;
    std::unordered_map<std::uint32_t, Link> links;  // by index
    std::set<LinkAddress> held;
    std::map<std::uint32_t, Prefix> exits;     // by index: where a route of the interface leads
    std::map<std::string, std::string> marks;  // why an interface of this name is outside, for good
    Inside inside;                             // as it was told
};

}  // namespace links
