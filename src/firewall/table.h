#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "firewall/batch.h"
#include "firewall/objects.h"
#include "firewall/sets.h"
#include "links/zones.h"
#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace firewall {

/// The owner of the rules in the kernel. It is asked when they must be put there again.
class ElementOwner {
public:
    virtual ~ElementOwner() = default;
    /// The elements of all enabled rules: what was committed, without what was taken out.
    [[nodiscard]] virtual std::vector<Element> elements() const = 0;
};

/// Where enabled rules take effect. Replaced by a fake in tests.
class Kernel {
public:
    virtual ~Kernel() = default;
    /// Takes elements out and puts others in, all or nothing. A key may be in both lists with different
    /// targets. After a success the owner first updates what its elements() returns.
    /// Errors: the kernel's text; nothing has changed, or the change is undone as soon as possible.
    virtual tk::Status commit(std::span<const Element> removed, std::span<const Element> added) = 0;
    /// What has passed by each of these elements, in their order, since it was put in.
    /// Errors: 0 for an element that lets nothing pass, and where the kernel does not tell.
    [[nodiscard]] virtual std::vector<NatTraffic> traffic(std::span<const Element> elements) = 0;
};

/// The router's table in nf_tables, and the table that guards IPv6. This object's socket owns them: nobody
/// else can change them, and they go when the process ends, however that happens.
///
/// When the kernel does not tell the outcome of a change, the tables are made again as they were before it.
class Table final : public Kernel, public links::InsideWatcher {
public:
    /// `checksTargets`: connections are ended when their target is not inside, or has become the
    /// router itself.
    explicit Table(const GuardConfig& guard = {}, bool checksTargets = true)
        : guard(guard), checksTargets(checksTargets) {}
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    /// Makes the table, and replaces one that was left behind. Until endFlows(), flows pass whether or not
    /// their rule is present.
    /// Errors: the kernel's text; also when another process owns the table, or the kernel lacks something
    /// that the table needs.
    tk::Status open();
    /// Sets the owner of the rules. Without one, a table that is made again has no rules.
    /// Lifetime: the owner outlives every change of the table.
    void setOwner(const ElementOwner& rulesOwner) { owner = &rulesOwner; }
    /// From now on, ends the flows that have no present rule: those of an earlier process, and those of each
    /// rule that goes. Call it once the rules whose flows should live on are there.
    tk::Status endFlows();

    tk::Status commit(std::span<const Element> removed, std::span<const Element> added) override;
    [[nodiscard]] std::vector<NatTraffic> traffic(std::span<const Element> elements) override;

    /// Changes the guard in place, in one transaction: rules, flows and users stay, and no packet passes
    /// meanwhile that both guards would stop.
    /// Errors: the kernel's text; the guard is the former one.
    tk::Status setGuard(const GuardConfig& wanted);

    // When the kernel refuses one of these, that is logged, and it is tried again every second.

    /// Begins or ceases to check the targets of connections.
    void setChecksTargets(bool checks);

    /// Lets a user's processes send only to hosts inside, for as long as the table exists and its guard limits
    /// connections.
    void guardUser(std::uint32_t user);
    /// Lets guarded users send only to these addresses, ends the flows that lead elsewhere where targets are
    /// checked, and lets a connection leave by the interface it came in by only where that is one of these
    /// interfaces.
    void insideChanged(const links::Inside& now) override;

private:
    using Fill = std::function<void(Batch&)>;

    tk::Status whyNotMade(const tk::Status& result);
    void addEnds(Batch& batch) const;
    void addInside(Batch& batch, const links::Inside& now) const;
    void addCheck(Batch& batch, bool checks) const;
    void addGuardOfIp6(Batch& batch, bool isWanted) const;
    [[nodiscard]] std::vector<Element> live(std::span<const Element> elements) const;
    [[nodiscard]] std::vector<Fill> pieces() const;
    tk::Status send(std::span<const Fill> fills);
    tk::Status make();
    tk::Status makeAnew();
    tk::Status attempt(const Fill& fill);
    tk::Status change(const Fill& fill);
    void insist(const Fill& fill, const std::string& trouble);
    void mendLater();
    void mend();

    netlink::Socket socket;
    bool isMade = false;
    bool guardsIp6 = false;
    bool ownsIp6 = false;  // the table for IPv6 was made, and may be there
    GuardConfig guard;
    bool checksTargets;
    // What the table holds, and what it is made again from.
    links::Inside inside;
    std::set<std::uint32_t> guarded;  // users
    const ElementOwner* owner = nullptr;
    bool endsFlows = false;
    const char* doubt = nullptr;  // why the table may differ from that; null when it does not
    bool reported = false;        // the log says that the table cannot be made again
    bool isMending = false;       // the timer runs, and then the table is made again
    tk::Timer<Table, &Table::mend> mendTimer{*this};
};

}  // namespace firewall
