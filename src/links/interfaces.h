#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "contract/interfaces.h"
#include "hub/access.h"
#include "links/interfaceids.h"
#include "links/kernel.h"
#include "links/linkswitch.h"
#include "links/zones.h"
#include "tk/handler.h"

namespace links {

/// Hears of interfaces in step with the announcements on the bus.
class InterfaceWatcher {
public:
    virtual ~InterfaceWatcher() = default;
    /// Called after an interface is announced.
    virtual void interfaceAdded(std::uint32_t index, std::uint32_t id) = 0;
    /// Called before the end of an interface is announced.
    virtual void interfaceGone(std::uint32_t index) = 0;
};

/// The router's interfaces on the bus, at {20, 0}: lists them, announces changes, sets them up and down.
/// Loopback is not offered.
class Interfaces final : public tk::Handler {
public:
    /// Sets interfaces up and down, and tells for whom.
    /// Lifetime: both outlive the handler.
    struct Setting {
        LinkSwitch& links;
        const hub::Requester& requester;
    };

    /// Lifetime: all outlive the handler.
    Interfaces(InterfaceIds& ids, Kernel& kernel, const Zones& zones, const Setting& setting)
        : ids(ids), kernel(kernel), zones(zones), setting(setting) {}
    /// Adds a watcher.
    /// Lifetime: the watcher outlives the use of the handler.
    void addWatcher(InterfaceWatcher& watcher) { watchers.push_back(&watcher); }

    /// Takes what the kernel says of one interface, and announces the changes.
    void apply(const Link& link);
    /// The kernel no longer has an interface with this index.
    void remove(std::uint32_t index);
    /// Takes a full list, and announces the differences.
    void applyAll(const std::vector<Link>& links);

    /// Answer the bus: the list, one record, a change of state, the number of records.
    tk::message cmdGetAll(const tk::message& request) override;
    tk::message cmdGetObj(const tk::message& request) override;
    tk::message cmdSetObj(const tk::message& request) override;
    tk::message cmdGetCount(const tk::message& request) override;
    /// Command 1 is the paged list, 2 tells which side an interface is on.
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;

private:
    [[nodiscard]] tk::message tellSide(const tk::message& request) const;
    void take(const Link& link);
    void forgetAbsent();
    void add(std::uint32_t id, const Link& link);
    void update(std::uint32_t id, const Link& link);
    void withdraw(std::uint32_t id);
    void tell(const contract::InterfaceRecord& record);
    void tellStatus(std::uint32_t id);

    InterfaceIds& ids;
    Kernel& kernel;
    const Zones& zones;
    const Setting setting;
    std::vector<InterfaceWatcher*> watchers;
    std::map<std::uint32_t, Link> links;                       // by id
    std::unordered_map<std::uint32_t, std::uint32_t> byIndex;  // the kernel's index to id
};

}  // namespace links
