#include "hub/peers.h"

#include <algorithm>
#include <utility>

namespace hub {

tk::Status Peers::checkRoom(uid_t user, bool runsPrograms) const {
    const auto own = static_cast<std::size_t>(std::count_if(
        peers.begin(), peers.end(), [user](const auto& entry) { return entry.second->user().uid == user; }));
    if (user != 0 && own >= limitPerUser) return tk::Status::failure("too many connections of one user");
    const std::size_t room = runsPrograms ? limit : limit - reserved;
    return peers.size() >= room ? tk::Status::failure("too many connections") : tk::Status();
}

void Peers::add(tk::Fd socket, const Credentials& credentials, Peer::Owner& owner) {
    budgets.forgetUnused();
    const std::uint32_t number = newNumber();
    const Peer::Terms terms{credentials, number, budgets.of(credentials.uid, number)};
    peers[number] = std::make_unique<Peer>(std::move(socket), terms, owner);
}

/// A number that no connection has, even after all have been given out once.
std::uint32_t Peers::newNumber() {
    while (nextNumber < tk::program::firstClient || peers.contains(nextNumber))
        nextNumber = std::max(nextNumber + 1, tk::program::firstClient);
    return nextNumber++;
}

std::unique_ptr<Peer> Peers::take(std::uint32_t number) {
    auto taken = peers.extract(number);
    if (taken.empty()) return nullptr;
    if (taken.mapped()->isProgram()) programs.erase(taken.mapped()->identity());
    return std::move(taken.mapped());
}

void Peers::clear() {
    programs.clear();
    peers.clear();
}

void Peers::enrol(Peer& peer, std::uint32_t program) {
    programs[program] = peer.clientNumber();
    peer.becomeProgram(program);
}

void Peers::resign(Peer& peer) {
    programs.erase(peer.identity());
    peer.resign();
}

Peer* Peers::find(std::uint32_t number) const {
    const auto peer = peers.find(number);
    return peer == peers.end() ? nullptr : peer->second.get();
}

Peer* Peers::findProgram(std::uint32_t program) const {
    const auto number = programs.find(program);
    return number == programs.end() ? nullptr : find(number->second);
}

Peer* Peers::findAt(const tk::Path& path) const {
    if (path.empty()) return nullptr;
    Peer* client = find(path.front());
    return client ? client : findProgram(path.front());
}

std::vector<Peer*> Peers::all() const {
    std::vector<Peer*> list;
    for (const auto& [number, peer] : peers) list.push_back(peer.get());
    return list;
}

tk::Budget& Peers::payer(std::uint32_t number) {
    const Peer* peer = find(number);
    return peer ? peer->budget() : budgets.of(0, number);
}

}  // namespace hub
