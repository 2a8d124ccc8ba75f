#include "hub/pendingrequests.h"

#include <iterator>
#include <utility>

#include "tk/bus.h"
#include "tk/names.h"

namespace hub {

PendingRequests::Added PendingRequests::add(std::uint32_t requester, std::uint32_t callee,
                                            const tk::message& request, tk::Budget& payer) {
    const Key key{requester, request.get_u32(tk::field::number)};
    if (entries.contains(key)) return Added::duplicate;
    const auto count = counts.find(requester);
    if (count != counts.end() && count->second >= limitPerPeer) return Added::full;
    const std::size_t elements = request.get_u32_array(tk::field::destination).size() +
                                 request.get_u32_array(tk::field::sender).size();
    const std::size_t cost = overhead + elements * sizeof(std::uint32_t);
    if (!payer.hasRoomFor(cost)) return Added::full;
    entries.emplace(key, Entry{callee, tk::routingOf(request), tk::Charge(payer, cost), round});
    byCallee.emplace(callee, key);
    ++counts[requester];
    return Added::yes;
}

PendingRequests::Entries::iterator PendingRequests::erase(Entries::iterator entry) {
    byCallee.erase({entry->second.callee, entry->first});
    const auto count = counts.find(entry->first.first);
    if (--count->second == 0) counts.erase(count);
    return entries.erase(entry);
}

bool PendingRequests::finish(std::uint32_t requester, std::uint32_t callee, const tk::message& end) {
    const auto entry = entries.find({requester, end.get_u32(tk::field::number)});
    if (entry == entries.end() || entry->second.callee != callee) return false;
    // It must not reach another handler of the requester's.
    if (entry->second.routing.get_u32_array(tk::field::sender) != end.get_u32_array(tk::field::destination))
        return false;
    erase(entry);
    return true;
}

void PendingRequests::drop(std::uint32_t requester, std::uint32_t number) {
    if (const auto entry = entries.find({requester, number}); entry != entries.end()) erase(entry);
}

std::vector<tk::message> PendingRequests::takeOfCallee(std::uint32_t callee) {
    std::vector<tk::message> taken;
    auto next = byCallee.lower_bound({callee, Key{0, 0}});
    while (next != byCallee.end() && next->first == callee) {
        const auto entry = entries.find(next->second);
        ++next;  // erasing the entry erases its index line
        taken.push_back(std::move(entry->second.routing));
        erase(entry);
    }
    return taken;
}

std::vector<tk::message> PendingRequests::takeOld() {
    std::vector<tk::message> taken;
    for (auto entry = entries.begin(); entry != entries.end();) {
        const bool isOld = entry->second.round != round;
        if (isOld) taken.push_back(std::move(entry->second.routing));
        entry = isOld ? erase(entry) : std::next(entry);
    }
    ++round;
    return taken;
}

void PendingRequests::dropOfRequester(std::uint32_t requester) {
    auto entry = entries.lower_bound({requester, 0});
    while (entry != entries.end() && entry->first.first == requester) entry = erase(entry);
}

}  // namespace hub
