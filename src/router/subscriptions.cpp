#include "router/subscriptions.h"

#include <algorithm>

namespace router {

bool Subscriptions::add(std::uint32_t peer, const tk::Path& path, std::uint32_t command) {
    const auto known = of(path, command);
    if (std::find(known.begin(), known.end(), peer) != known.end()) return true;
    std::size_t& count = counts[peer];
    if (count >= limitPerPeer) return false;
    ++count;
    subscribers[{path, command}].push_back(peer);
    return true;
}

void Subscriptions::remove(std::uint32_t peer, const tk::Path& path, std::uint32_t command) {
    const auto entry = subscribers.find({path, command});
    if (entry == subscribers.end() || std::erase(entry->second, peer) == 0) return;
    if (entry->second.empty()) subscribers.erase(entry);
    --counts[peer];
}

void Subscriptions::drop(std::uint32_t peer) {
    if (counts.erase(peer) == 0) return;
    for (auto entry = subscribers.begin(); entry != subscribers.end();) {
        std::erase(entry->second, peer);
        entry = entry->second.empty() ? subscribers.erase(entry) : std::next(entry);
    }
}

const std::vector<std::uint32_t>& Subscriptions::of(const tk::Path& path, std::uint32_t command) const {
    static const std::vector<std::uint32_t> none;
    const auto entry = subscribers.find({path, command});
    return entry == subscribers.end() ? none : entry->second;
}

}  // namespace router
