#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "firewall/batch.h"
#include "firewall/objects.h"
#include "links/zones.h"
#include "netlink/socket.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace firewall {

/// Whose rules are in the kernel. It is asked when they have to be put there anew.
class ElementOwner {
public:
    virtual ~ElementOwner() = default;
    /// The elements of all enabled rules: what was committed, less what was taken out.
    [[nodiscard]] virtual std::vector<Element> elements() const = 0;
};

/// Where enabled rules take effect. Replaced by a fake in tests.
class Kernel {
public:
    virtual ~Kernel() = default;
    /// Takes elements out and puts others in, all or nothing; a key may be in both lists with another target.
    /// The owner changes what it tells after a success, and before anything else.
    /// Errors: the kernel's text; nothing has changed then, or it is undone as soon as that is possible.
    virtual tk::Status commit(std::span<const Element> removed, std::span<const Element> added) = 0;
};

/// The router's table in nf_tables, and the one that guards IPv6 beside it. They are owned by the socket of
/// this object: nobody else can change them, and they go with the process, however that ends.
///
/// A change whose outcome the kernel does not tell is settled by making the tables anew as they were.
class Table final : public Kernel, public links::InsideWatcher {
public:
    /// `checksTargets`: connections to targets that are not inside, or not any more, are ended.
    explicit Table(const GuardConfig& guard = {}, bool checksTargets = true)
        : guard(guard), checksTargets(checksTargets) {}
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    /// Makes the table, in place of one that was left behind. Flows of rules are let pass, whosever they
    /// were, until endFlows().
    /// Errors: also when another process owns the table, and when the kernel lacks something that the table
    /// needs.
    tk::Status open();
    /// Says whose rules the table holds; without an owner none are put into a table that is made anew.
    /// Lifetime: the owner is there as long as anything changes the table.
    void setOwner(const ElementOwner& rulesOwner) { owner = &rulesOwner; }
    /// Ends the flows that are not of a present rule, from now on: those of a former process, and of each
    /// rule that goes. Call once the rules are there whose flows shall live on.
    tk::Status endFlows();

    tk::Status commit(std::span<const Element> removed, std::span<const Element> added) override;

    // What the kernel refuses of these is logged, and tried again each second.

    /// Limits what a user's processes send to hosts inside, from now on for as long as the table exists.
    void guardUser(std::uint32_t user);
    /// The guard lets its users send to these addresses alone, and a connection may come back through these
    /// interfaces alone.
    void insideChanged(const links::Inside& now) override;

private:
    using Fill = std::function<void(Batch&)>;

    tk::Status whyNotMade(const tk::Status& result);
    void addEnds(Batch& batch) const;
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
    const GuardConfig guard;
    const bool checksTargets;
    // What is in the table, and what it is made anew from.
    links::Inside inside;
    std::set<std::uint32_t> guarded;  // users
    const ElementOwner* owner = nullptr;
    bool endsFlows = false;
    const char* doubt = nullptr;  // why the table may be different from that; null when it is not
    bool reported = false;        // that it cannot be made anew
    bool isMending = false;       // as soon as the timer ends
    tk::Timer<Table, &Table::mend> mendTimer{*this};
};

}  // namespace firewall
