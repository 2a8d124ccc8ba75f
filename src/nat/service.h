#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "firewall/table.h"
#include "hub/access.h"
#include "hub/refusallog.h"
#include "nat/policy.h"
#include "nat/routerports.h"
#include "nat/ruleset.h"
#include "tk/handler.h"
#include "tk/store.h"
#include "tk/timer.h"

namespace nat {

/// Destination NAT rules on the bus, at {20, 5}. A request is answered once the kernel has committed or
/// refused it. A dynamic rule belongs to the connection that made it, and goes with it; others are stored.
/// Root may do everything. Any other user is a program: it makes only dynamic rules, and changes or removes
/// only its own.
class Service final : public tk::Handler, public firewall::ElementOwner {
public:
    /// How many rules may be stored, unless said otherwise: each change writes all of them.
    static constexpr std::size_t usualStoredLimit = 4096;

    /// `storedLimit`: how many rules may be stored. If the store already has more, all of them are loaded.
    /// Lifetime: everything except the path outlives the handler.
    Service(const std::string& storePath, const Policy& policy, const RouterPorts& ports,
            firewall::Kernel& kernel, const hub::Requester& requester,
            std::size_t storedLimit = usualStoredLimit);

    /// Puts the stored rules into the kernel. A rule that is refused is logged, and kept disabled in memory;
    /// the store stays as it is.
    void load();

    /// Takes all rules out of the kernel and forgets them; the store stays as it is. For the end of the
    /// router, when nobody can ask for rules any more.
    void withdraw();

    [[nodiscard]] std::vector<firewall::Element> elements() const override;

    // The commands of the bus. cmdUnknown() answers testRule.
    tk::message cmdAddObj(const tk::message& request) override;
    tk::message cmdSetObj(const tk::message& request) override;
    tk::message cmdRemoveObj(const tk::message& request) override;
    tk::message cmdGetObj(const tk::message& request) override;
    tk::message cmdGetAll(const tk::message& request) override;
    tk::message cmdGetCount(const tk::message& request) override;
    tk::message cmdUnknown(const tk::message& received, std::uint32_t command) override;
    /// Removes the dynamic rules of a client. Rules that the kernel refuses to take out stay listed, and it
    /// is asked again every second. A program that comes back under the client's number keeps its new rules.
    tk::message cmdDisconnected(const tk::Path& client) override;

private:
    // The checks and steps of one request.
    // Errors: the code is that of the bus error.

    /// Success when there is room for one more rule, or for one that leads elsewhere. `former` is null for a
    /// new rule.
    tk::Status checkRoom(const Rule* former, const Rule& changed) const;
    tk::Status check(const Rule* former, const Rule& rule, bool isProgram) const;
    tk::Status checkProgram(const Rule* former, const Rule& rule) const;
    tk::Status checkOwner(const Rule& rule, const tk::message& request) const;
    [[nodiscard]] bool isAskedByProgram() const { return requester.user() != 0; }
    tk::message refuse(const tk::Status& refusal);
    tk::Status apply(const Rule* former, const Rule* changed);
    tk::Status stage(const Rule& known, const Rule* changed);
    void keep(const Rule* former, const Rule* changed);
    tk::Status takeOut(const std::vector<std::uint32_t>& ids);
    tk::Status removeOrphans();
    tk::Status removeSomeOrphans();
    void retryOrphans();
    void tellChanged(const Rule& rule);
    void tellRemoved(const std::vector<std::uint32_t>& ids);
    void addTraffic(std::span<tk::message> records);

    tk::Store store;
    const Policy& policy;
    const RouterPorts& ports;
    const std::size_t storedLimit;
    firewall::Kernel& kernel;
    const hub::Requester& requester;
    hub::RefusalLog refusals{"nat", "rules refused"};
    RuleSet rules;
    std::set<std::uint32_t> orphans;  // dynamic rules that outlived their client, or are gone
    tk::Timer<Service, &Service::retryOrphans> orphanTimer{*this};
};

}  // namespace nat
