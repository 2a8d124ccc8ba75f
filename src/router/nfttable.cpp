#include "router/nfttable.h"

#include <errno.h>
#include <linux/netlink.h>

#include <algorithm>
#include <iterator>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "router/nftobjects.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int bufferBytes = 32 * 1024 * 1024;  // for a transaction that removes all rules of a large table
constexpr std::uint32_t restTicks = 20;        // 200 ms between two makings that others are the cause of
constexpr std::uint32_t retryTicks = 100;      // 1 s

constexpr const char* changedByOthers = "somebody else changed it";
constexpr const char* changeUnanswered = "the kernel did not tell what became of a change";
constexpr const char* changeRefused = "the kernel refused a change before";

}  // namespace

NftTable::~NftTable() {
    if (!socket.isOpen() || owned) return;  // an owned table goes with the socket
    NftBatch batch(socket);
    removeTable(batch, owned);
    if (const NetlinkResult result = batch.commit(); !result.ok())
        tk::log("nat: the table cannot be removed: ", result.text);
}

bool NftTable::open(std::string& reason, Kind kind) {
    if (!socket.open(NETLINK_NETFILTER)) {
        reason = "nf_tables: " + tk::errorText();
        return false;
    }
    socket.setBuffers(bufferBytes, bufferBytes);
    NetlinkResult result;
    if (kind == Kind::ownedIfPossible) {
        result = make(true);
        owned = result.ok();
    }
    if (kind == Kind::plain || result.error == EOPNOTSUPP || result.error == EINVAL) {
        if (!watch.open(socket.port(), reason)) {
            socket.close();
            return false;
        }
        result = make(false);
    }
    if (result.ok()) return true;
    reason = result.error == EPERM ? "nf_tables: no permission, or another process owns the table \"ip tk\""
                                   : "nf_tables: " + result.text;
    socket.close();
    return false;
}

/// Makes the table, in one transaction where that is possible: no packet meets it without its elements then.
NetlinkResult NftTable::make(bool owner) {
    std::vector<NatElement> all;
    for (const auto& [key, element] : elements) all.push_back(element);
    NetlinkResult result = make(owner, all);
    if (result.error != EMSGSIZE) return result;
    result = make(owner, {});
    return result.ok() ? fill(all) : result;
}

NetlinkResult NftTable::make(bool owner, std::span<const NatElement> content) {
    NftBatch batch(socket);
    removeTable(batch, owned);
    createTable(batch, owner);
    createGuard(batch, guard);
    addHairpins(batch, hairpins);
    addUplinks(batch, uplinks);
    if (guard.limitsConnections) addUsers(batch, guarded);
    addElements(batch, content);
    return batch.commit();
}

/// Puts elements into the table in as many transactions as it takes.
NetlinkResult NftTable::fill(std::span<const NatElement> content) {
    std::size_t most = content.size();
    while (!content.empty()) {
        const auto part = content.first(std::min(content.size(), most));
        NftBatch batch(socket);
        addElements(batch, part);
        NetlinkResult result = batch.commit();
        if (result.ok())
            content = content.subspan(part.size());
        else if (result.error == EMSGSIZE && most > 1)
            most /= 2;
        else
            return result;
    }
    return {};
}

NetlinkResult NftTable::makeAnew() {
    NetlinkResult result = make(owned);
    if (result.ok()) {
        tk::log("nat: the table is made anew: ", doubt);
        doubt = nullptr;
        reported = false;
    } else if (!std::exchange(reported, true)) {
        tk::log("nat: the table cannot be made anew: ", result.text);
    }
    return result;
}

/// Sends one change, to a table that is what it should be.
NetlinkResult NftTable::attempt(const Fill& fill) {
    if (doubt)
        if (NetlinkResult result = makeAnew(); !result.ok()) return result;
    NftBatch batch(socket);
    fill(batch);
    NetlinkResult result = batch.commit();
    if (result.unanswered) doubt = changeUnanswered;
    return result;
}

/// Brings a change about. Errors: the table is as it was before, or is made so as soon as that is possible.
NetlinkResult NftTable::change(const Fill& fill) {
    const bool wasSure = doubt == nullptr;
    NetlinkResult result = attempt(fill);
    // What others did to a plain table may show here before the watch tells of it.
    if (wasSure && !owned && (result.error == ENOENT || result.error == EEXIST)) doubt = changedByOthers;
    if (wasSure && doubt) result = attempt(fill);
    if (doubt && !isResting) rest(retryTicks);
    return result;
}

/// Brings about what must be sooner or later. The caller notes it down, whatever the kernel says now: the
/// table is made anew with it when the kernel refuses.
void NftTable::insist(const Fill& fill, const std::string& trouble) {
    const NetlinkResult result = change(fill);
    if (result.ok()) return;
    tk::log(trouble, ": ", result.text);
    doubt = changeRefused;
    if (!isResting) rest(retryTicks);
}

void NftTable::tableChanged() {
    doubt = changedByOthers;
    if (!isResting) mend();
}

void NftTable::rest(std::uint32_t ticks) {
    isResting = true;
    restTimer.arm(ticks);
}

void NftTable::mend() {
    isResting = false;
    if (doubt) rest(makeAnew().ok() ? restTicks : retryTicks);
}

bool NftTable::commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                      std::string& reason) {
    const NetlinkResult result = change([&](NftBatch& batch) {
        removeElements(batch, removed);
        addElements(batch, added);
    });
    if (!result.ok()) {
        reason = result.text;
        return false;
    }
    remember(removed, added);
    return true;
}

NftTable::Key NftTable::keyOf(const NatElement& element) {
    return {element.destination, element.protocol, element.port};
}

void NftTable::remember(std::span<const NatElement> removed, std::span<const NatElement> added) {
    for (const NatElement& element : removed) elements.erase(keyOf(element));
    for (const NatElement& element : added) elements[keyOf(element)] = element;
}

void NftTable::interfaceAdded(std::uint32_t index, std::uint32_t) {
    if (!socket.isOpen() || hairpins.contains(index)) return;
    insist([index](NftBatch& batch) { addHairpins(batch, {index}); },
           "nat: hairpin connections on interface " + std::to_string(index) + " cannot be served");
    hairpins.insert(index);
}

void NftTable::interfaceGone(std::uint32_t index) {
    if (!hairpins.contains(index)) return;
    insist([index](NftBatch& batch) { removeHairpin(batch, index); },
           "nat: the entry of interface " + std::to_string(index) + " cannot be removed");
    hairpins.erase(index);
}

void NftTable::guardUser(std::uint32_t user) {
    if (!guard.limitsConnections || !socket.isOpen() || guarded.contains(user)) return;
    insist([user](NftBatch& batch) { addUsers(batch, {user}); },
           "guard: the connections of user " + std::to_string(user) + " cannot be limited");
    guarded.insert(user);
}

void NftTable::setUplinks(const std::set<std::uint32_t>& indexes) {
    if (!socket.isOpen() || indexes == uplinks) return;
    std::set<std::uint32_t> gone;
    std::set<std::uint32_t> come;
    std::set_difference(uplinks.begin(), uplinks.end(), indexes.begin(), indexes.end(),
                        std::inserter(gone, gone.end()));
    std::set_difference(indexes.begin(), indexes.end(), uplinks.begin(), uplinks.end(),
                        std::inserter(come, come.end()));
    insist(
        [&](NftBatch& batch) {
            removeUplinks(batch, gone);
            addUplinks(batch, come);
        },
        "nat: the interfaces of default routes cannot be set");
    uplinks = indexes;
}

}  // namespace router
