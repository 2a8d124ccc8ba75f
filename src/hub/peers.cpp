#include "hub/peers.h"

#include <algorithm>
#include <utility>

namespace router {

tk::Status HubPeers::checkRoom(uid_t user, bool runsPrograms) const {
    const auto own = static_cast<std::size_t>(std::count_if(
        peers.begin(), peers.end(), [user](const auto& entry) { return entry.second->user().uid == user; }));
    if (user != 0 && own >= limitPerUser) return tk::Status::failure("too many connections of one user");
    const std::size_t room = runsPrograms ? limit : limit - reserved;
    return peers.size() >= room ? tk::Status::failure("too many connections") : tk::Status();
}

void HubPeers::add(tk::Fd socket, const Credentials& credentials, HubPeer::Owner& owner) {
    budgets.forgetUnused();
    const std::uint32_t number = newNumber();
    const HubPeer::Terms terms{credentials, number, budgets.of(credentials.uid, number)};
    peers[number] = std::make_unique<HubPeer>(std::move(socket), terms, owner);
}

/// One that no connection has, also when all have been given out once.
std::uint32_t HubPeers::newNumber() {
    while (nextNumber < tk::program::firstClient || peers.contains(nextNumber))
        nextNumber = std::max(nextNumber + 1, tk::program::firstClient);
    return nextNumber++;
}

std::unique_ptr<HubPeer> HubPeers::take(std::uint32_t number) {
    auto taken = peers.extract(number);
    if (taken.empty()) return nullptr;
    if (taken.mapped()->isProgram()) programs.erase(taken.mapped()->identity());
    return std::move(taken.mapped());
}

void HubPeers::clear() {
    programs.clear();
    peers.clear();
}

void HubPeers::enrol(HubPeer& peer, std::uint32_t program) {
    programs[program] = peer.clientNumber();
    peer.becomeProgram(program);
}

void HubPeers::resign(HubPeer& peer) {
    programs.erase(peer.identity());
    peer.resign();
}

HubPeer* HubPeers::find(std::uint32_t number) const {
    const auto peer = peers.find(number);
    return peer == peers.end() ? nullptr : peer->second.get();
}

HubPeer* HubPeers::findProgram(std::uint32_t program) const {
    const auto number = programs.find(program);
    return number == programs.end() ? nullptr : find(number->second);
}

HubPeer* HubPeers::findAt(const tk::Path& path) const {
    if (path.empty()) return nullptr;
    HubPeer* client = find(path.front());
    return client ? client : findProgram(path.front());
}

tk::Budget& HubPeers::payer(std::uint32_t number) {
    const HubPeer* peer = find(number);
    return peer ? peer->budget() : budgets.of(0, number);
}

}  // namespace router
