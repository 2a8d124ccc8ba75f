#include "firewall/table.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "firewall/features.h"
#include "firewall/objects.h"
#include "firewall/rules.h"
#include "firewall/sets.h"
#include "netlink/request.h"
#include "tk/fd.h"
#include "tk/log.h"

namespace firewall {

namespace {

// Enough for a transaction that removes all rules of a large table.
constexpr int bufferBytes = 32 * 1024 * 1024;
constexpr std::uint32_t retryTicks = 100;  // 1 s
constexpr std::size_t pieceSize = 64;      // fits the smallest socket buffer

// Why the table is made again.
constexpr const char* changeUnanswered = "the kernel did not tell what became of a change";
constexpr const char* changeRefused = "the kernel refused a change before";

/// True when the kernel knows IPv6. If it does not, nobody can send IPv6.
bool hasIp6() {
    const tk::Fd attempt(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return attempt.isOpen() || errno != EAFNOSUPPORT;
}

using Numbers = std::vector<std::uint32_t>;

Numbers listOf(const std::set<std::uint32_t>& numbers) {
    return {numbers.begin(), numbers.end()};
}

/// What is in `left` but not in `right`. Both are sorted.
template <typename List>
auto without(const List& left, const List& right) {
    std::vector<typename List::value_type> out;
    std::set_difference(left.begin(), left.end(), right.begin(), right.end(), std::back_inserter(out));
    return out;
}

/// The elements whose target is in the ranges, or those whose target is not.
std::vector<Element> leading(bool isInside, std::span<const Element> elements,
                             const std::vector<links::AddressRange>& ranges) {
    std::vector<Element> out;
    for (const Element& element : elements)
        if (links::contains(ranges, ntohl(element.target.address)) == isInside) out.push_back(element);
    return out;
}

/// Appends a piece for every `pieceSize` entries.
template <typename Entry, typename Append>
void cut(std::span<const Entry> all, std::vector<std::function<void(Batch&)>>& out, Append append) {
    while (!all.empty()) {
        const auto part = all.first(std::min(all.size(), pieceSize));
        all = all.subspan(part.size());
        out.push_back([append, kept = std::vector<Entry>(part.begin(), part.end())](Batch& batch) {
            append(batch, std::span<const Entry>(kept));
        });
    }
}

/// The same for the entries that a set of the table should hold.
template <typename Entry>
void cut(const std::vector<Entry>& all, std::vector<std::function<void(Batch&)>>& out,
         void (*change)(Batch&, Change, std::span<const Entry>)) {
    cut<Entry>(std::span<const Entry>(all), out,
               [change](Batch& batch, std::span<const Entry> part) { change(batch, Change::add, part); });
}

}  // namespace

tk::Status Table::open() {
    tk::Status status = socket.open(NETLINK_NETFILTER);
    if (!status.isOk()) return status.prefixed("nf_tables: ");
    socket.setBuffers(bufferBytes, bufferBytes);
    guardsIp6 = guard.limitsConnections && hasIp6();
    status = make();
    if (status.isOk()) return status;
    status = whyNotMade(status);
    socket.close();
    return status;
}

tk::Status Table::whyNotMade(const tk::Status& result) {
    if (result.code() == EPERM)
        return tk::Status::failure("nf_tables: no permission, or another process owns the table \"ip tk\"");
    const auto missing = missingFeature(socket, neededFeatures(), {guardsIp6, guard.connections != 0});
    if (!missing) return result.prefixed("nf_tables: ");
    return tk::Status::failure("nf_tables: this kernel lacks " + *missing);
}

tk::Status Table::endFlows() {
    const tk::Status result = change([this](Batch& batch) { addEnds(batch); });
    endsFlows = result.isOk();
    return result.prefixed("nf_tables: ");
}

void Table::addEnds(Batch& batch) const {
    addFlowEnd(batch);
    if (checksTargets) addStrayEnd(batch);
}

/// Makes the table for IPv6 anew, or removes it.
void Table::addGuardOfIp6(Batch& batch, bool isWanted) const {
    if (isWanted || ownsIp6) removeTable(batch, ownsIp6, nft::ip6);
    if (isWanted) createGuardOfIp6(batch);
}

/// The elements whose flows may go on. As packets are compared with these alone, they follow what is inside.
std::vector<Element> Table::live(std::span<const Element> elements) const {
    if (!checksTargets) return {elements.begin(), elements.end()};
    return leading(true, elements, inside.addresses);
}

/// What the table consists of, in the order in which it is made. The chains that end flows come last, when
/// everything that flows are compared with is there.
std::vector<Table::Fill> Table::pieces() const {
    std::vector<Fill> out;
    out.push_back([this](Batch& batch) {
        removeTable(batch, isMade);
        createTable(batch);
        changeGuard(batch, noGuard, guard);
        addGuardOfIp6(batch, guardsIp6);
    });
    // The users come first: they must never be free to send.
    if (guard.limitsConnections) {
        const Numbers users = listOf(guarded);
        cut<std::uint32_t>(users, out, [this](Batch& batch, std::span<const std::uint32_t> part) {
            addUsers(batch, part, guardsIp6);
        });
    }
    cut(listOf(inside.interfaces), out, &changeHairpins);
    cut(inside.addresses, out, &changeInside);
    if (owner) {
        const std::vector<Element> all = owner->elements();
        cut(all, out, &changeElements);
        cut(live(all), out, &changeLive);
    }
    if (endsFlows) out.emplace_back([this](Batch& batch) { addEnds(batch); });
    return out;
}

/// Sends pieces in one transaction, or in several when one is too large for the socket.
tk::Status Table::send(std::span<const Fill> fills) {
    Batch batch(socket);
    for (const Fill& fill : fills) fill(batch);
    tk::Status result = batch.commit();
    if (result.code() != EMSGSIZE || fills.size() < 2) return result;
    const std::size_t half = fills.size() / 2;
    result = send(fills.first(half));
    return result.isOk() ? send(fills.subspan(half)) : result;
}

tk::Status Table::make() {
    tk::Status result = send(pieces());
    isMade = isMade || result.isOk();
    if (result.isOk()) ownsIp6 = guardsIp6;
    return result;
}

tk::Status Table::makeAnew() {
    tk::Status result = make();
    if (result.isOk()) {
        tk::log("nat: the table is made anew: ", doubt);
        doubt = nullptr;
        reported = false;
    } else if (!std::exchange(reported, true)) {
        tk::log("nat: the table cannot be made anew: ", result.reason());
    }
    return result;
}

/// Sends one change. If the table is in doubt, it is made again first.
tk::Status Table::attempt(const Fill& fill) {
    if (doubt)
        if (tk::Status result = makeAnew(); !result.isOk()) return result;
    Batch batch(socket);
    fill(batch);
    tk::Status result = batch.commit();
    if (result.code() == netlink::unanswered) doubt = changeUnanswered;
    return result;
}

/// Makes a change.
/// Errors: the table is as it was before, or is made so as soon as possible.
tk::Status Table::change(const Fill& fill) {
    const bool wasSure = doubt == nullptr;
    tk::Status result = attempt(fill);
    if (wasSure && doubt) result = attempt(fill);
    if (doubt) mendLater();
    return result;
}

/// Makes a change that must come into effect sooner or later. The caller records it even if the kernel
/// refuses it now: the table is then made again with it.
void Table::insist(const Fill& fill, const std::string& trouble) {
    const tk::Status result = change(fill);
    if (result.isOk()) return;
    tk::log(trouble, ": ", result.reason());
    doubt = changeRefused;
    mendLater();
}

void Table::mendLater() {
    if (!std::exchange(isMending, true)) mendTimer.arm(retryTicks);
}

void Table::mend() {
    isMending = false;
    if (doubt && !makeAnew().isOk()) mendLater();
}

tk::Status Table::commit(std::span<const Element> removed, std::span<const Element> added) {
    return change([&](Batch& batch) {
        changeElements(batch, Change::remove, removed);
        changeElements(batch, Change::add, added);
        changeLive(batch, Change::remove, live(removed));
        changeLive(batch, Change::add, live(added));
    });
}

std::vector<NatTraffic> Table::traffic(std::span<const Element> elements) {
    const std::vector<Element> counting = live(elements);  // in the same order
    const std::vector<NatTraffic> counted = readTraffic(socket, counting);
    std::vector<NatTraffic> all(elements.size());
    std::size_t next = 0;
    for (std::size_t i = 0; i < elements.size() && next < counting.size(); ++i)
        if (elements[i] == counting[next]) all[i] = counted[next++];
    return all;
}

void Table::guardUser(std::uint32_t user) {
    if (!socket.isOpen() || guarded.contains(user)) return;
    if (guard.limitsConnections)
        insist(
            [this, user](Batch& batch) {
                addUsers(batch, {&user, 1}, guardsIp6);
            },
            "guard: what user " + std::to_string(user) + " sends cannot be limited");
    guarded.insert(user);
}

tk::Status Table::setGuard(const GuardConfig& wanted) {
    const bool wantsIp6 = wanted.limitsConnections && hasIp6();
    const tk::Status result = change([&](Batch& batch) {
        changeGuard(batch, guard, wanted);
        // The kernel may have learned IPv6 meanwhile.
        if (wantsIp6 != guardsIp6 || wanted.limitsConnections != guard.limitsConnections)
            addGuardOfIp6(batch, wantsIp6);
        ownsIp6 = ownsIp6 || wantsIp6;  // perhaps: the kernel may not tell
        if (wanted.limitsConnections && !guard.limitsConnections)
            addUsers(batch, listOf(guarded), wantsIp6);
        else if (wantsIp6 && !guardsIp6)
            addUsersOfIp6(batch, listOf(guarded));
    });
    if (!result.isOk()) return result.prefixed("guard: nf_tables: ");
    guard = wanted;
    guardsIp6 = ownsIp6 = wantsIp6;
    return {};
}

void Table::setChecksTargets(bool checks) {
    if (checks == checksTargets) return;
    insist([this, checks](Batch& batch) { addCheck(batch, checks); },
           "nat: the check of targets cannot be changed");
    checksTargets = checks;
}

void Table::addCheck(Batch& batch, bool checks) const {
    if (owner)
        changeLive(batch, checks ? Change::remove : Change::add,
                   leading(false, owner->elements(), inside.addresses));
    resetMissedFlows(batch);
    if (checks && endsFlows) addStrayEnd(batch);
}

void Table::addInside(Batch& batch, const links::Inside& now) const {
    changeHairpins(batch, Change::remove, without(inside.interfaces, now.interfaces));
    changeHairpins(batch, Change::add, without(now.interfaces, inside.interfaces));
    changeInside(batch, Change::remove, without(inside.addresses, now.addresses));
    changeInside(batch, Change::add, without(now.addresses, inside.addresses));
    if (!checksTargets || !owner) return;
    const std::vector<Element> all = owner->elements();
    const std::vector<Element> lost = leading(false, leading(true, all, inside.addresses), now.addresses);
    const std::vector<Element> gained = leading(true, leading(false, all, inside.addresses), now.addresses);
    changeLive(batch, Change::remove, lost);
    changeLive(batch, Change::add, gained);
}

void Table::insideChanged(const links::Inside& now) {
    if (!socket.isOpen() || now == inside) return;
    insist([&](Batch& batch) { addInside(batch, now); }, "nat: what is inside cannot be set");
    inside = now;
}

}  // namespace firewall
