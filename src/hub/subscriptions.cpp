#include "hub/subscriptions.h"

#include <algorithm>
#include <iterator>

namespace hub {

namespace {

auto isOf(std::uint32_t peer) {
    return [peer](const Subscriptions::Subscriber& subscriber) { return subscriber.peer == peer; };
}

}  // namespace

bool Subscriptions::add(std::uint32_t peer, const tk::Subscription& wanted, tk::Budget& payer) {
    const std::vector<Subscriber>& known = of(wanted.path, wanted.command);
    if (std::any_of(known.begin(), known.end(), isOf(peer))) return true;
    const std::size_t cost = overhead + wanted.path.size() * sizeof(std::uint32_t);
    const auto count = counts.find(peer);
    if ((count != counts.end() && count->second >= limitPerPeer) || !payer.hasRoomFor(cost)) return false;
    ++counts[peer];
    subscribers[{wanted.path, wanted.command}].push_back({peer, tk::Charge(payer, cost)});
    return true;
}

void Subscriptions::remove(std::uint32_t peer, const tk::Subscription& unwanted) {
    const auto entry = subscribers.find({unwanted.path, unwanted.command});
    if (entry == subscribers.end() || std::erase_if(entry->second, isOf(peer)) == 0) return;
    if (entry->second.empty()) subscribers.erase(entry);
    --counts[peer];
}

void Subscriptions::drop(std::uint32_t peer) {
    if (counts.erase(peer) == 0) return;
    for (auto entry = subscribers.begin(); entry != subscribers.end();) {
        std::erase_if(entry->second, isOf(peer));
        entry = entry->second.empty() ? subscribers.erase(entry) : std::next(entry);
    }
}

void Subscriptions::dropIf(std::uint32_t peer,
                           const std::function<bool(const tk::Subscription&)>& isUnwanted) {
    std::vector<tk::Subscription> unwanted;
    for (const auto& [key, peers] : subscribers)
        if (std::any_of(peers.begin(), peers.end(), isOf(peer)))
            if (tk::Subscription held{key.first, key.second}; isUnwanted(held))
                unwanted.push_back(std::move(held));
    for (const tk::Subscription& each : unwanted) remove(peer, each);
}

const std::vector<Subscriptions::Subscriber>& Subscriptions::of(const tk::Path& path,
                                                                std::uint32_t command) const {
    static const std::vector<Subscriber> none;
    const auto entry = subscribers.find({path, command});
    return entry == subscribers.end() ? none : entry->second;
}

}  // namespace hub
