#include "router/nfttable.h"

#include <errno.h>
#include <linux/netlink.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "router/nftobjects.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int bufferBytes = 32 * 1024 * 1024;  // for a transaction that removes all rules of a large table

}  // namespace

NftTable::~NftTable() {
    if (!socket.isOpen() || owned) return;  // an owned table goes with the socket
    NftBatch batch(socket);
    removeTable(batch);
    if (const NetlinkResult result = batch.commit(); !result.ok())
        tk::log("nat: the table cannot be removed: ", result.text);
}

bool NftTable::open(std::string& reason, Kind kind) {
    if (!socket.open(NETLINK_NETFILTER)) {
        reason = "nf_tables: " + tk::errorText();
        return false;
    }
    socket.setBuffers(bufferBytes, bufferBytes);
    NetlinkResult result = make(kind == Kind::ownedIfPossible);
    owned = result.ok() && kind == Kind::ownedIfPossible;
    if (result.error == EOPNOTSUPP || result.error == EINVAL) result = make(false);
    if (result.ok()) return true;
    reason = result.error == EPERM ? "nf_tables: no permission, or another process owns the table \"ip tk\""
                                   : "nf_tables: " + result.text;
    socket.close();
    return false;
}

NetlinkResult NftTable::make(bool owner) {
    NftBatch batch(socket);
    removeTable(batch);
    createTable(batch, owner);
    createGuard(batch, guard);
    addHairpins(batch, hairpins);
    if (guard.limitsConnections) addUsers(batch, guarded);
    if (guard.limitsConnections) addUplinks(batch, uplinks);
    std::vector<NatElement> elements;
    for (const auto& [key, element] : copies) elements.push_back(element);
    addElements(batch, elements);
    return batch.commit();
}

NetlinkResult NftTable::change(std::span<const NatElement> removed, std::span<const NatElement> added) {
    NftBatch batch(socket);
    removeElements(batch, removed);
    addElements(batch, added);
    return batch.commit();
}

bool NftTable::commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                      std::string& reason) {
    NetlinkResult result = change(removed, added);
    if (result.error == ENOENT && !owned) {
        // Somebody flushed the table: it is made anew as it was, and the change tried again.
        result = make(false);
        if (result.ok()) result = change(removed, added);
    }
    if (!result.ok()) {
        reason = result.text;
        return false;
    }
    if (!owned) remember(removed, added);
    return true;
}

NftTable::Key NftTable::keyOf(const NatElement& element) {
    return {element.destination, element.protocol, element.port};
}

void NftTable::remember(std::span<const NatElement> removed, std::span<const NatElement> added) {
    for (const NatElement& element : removed) copies.erase(keyOf(element));
    for (const NatElement& element : added) copies[keyOf(element)] = element;
}

void NftTable::interfaceAdded(std::uint32_t index, std::uint32_t) {
    if (!socket.isOpen() || !hairpins.insert(index).second) return;
    NftBatch batch(socket);
    addHairpins(batch, {index});
    if (const NetlinkResult result = batch.commit(); !result.ok())
        tk::log("nat: hairpin connections on interface ", index, " cannot be served: ", result.text);
}

void NftTable::interfaceGone(std::uint32_t index) {
    if (hairpins.erase(index) == 0) return;
    NftBatch batch(socket);
    removeHairpin(batch, index);
    if (const NetlinkResult result = batch.commit(); !result.ok())
        tk::log("nat: the entry of interface ", index, " cannot be removed: ", result.text);
}

void NftTable::guardUser(std::uint32_t user) {
    if (!guard.limitsConnections || !socket.isOpen() || !guarded.insert(user).second) return;
    NftBatch batch(socket);
    addUsers(batch, {user});
    if (const NetlinkResult result = batch.commit(); !result.ok())
        tk::log("guard: the connections of user ", user, " cannot be limited: ", result.text);
}

void NftTable::setUplinks(const std::set<std::uint32_t>& indexes) {
    if (!guard.limitsConnections || !socket.isOpen() || indexes == uplinks) return;
    std::set<std::uint32_t> gone;
    std::set<std::uint32_t> come;
    std::set_difference(uplinks.begin(), uplinks.end(), indexes.begin(), indexes.end(),
                        std::inserter(gone, gone.end()));
    std::set_difference(indexes.begin(), indexes.end(), uplinks.begin(), uplinks.end(),
                        std::inserter(come, come.end()));
    NftBatch batch(socket);
    removeUplinks(batch, gone);
    addUplinks(batch, come);
    const NetlinkResult result = batch.commit();
    uplinks = indexes;
    if (!result.ok()) tk::log("guard: the interfaces of default routes cannot be set: ", result.text);
}

}  // namespace router
