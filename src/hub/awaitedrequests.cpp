#include "hub/awaitedrequests.h"

#include <algorithm>
#include <utility>

namespace hub {

namespace {

auto isOf(std::uint32_t requester) {
    return [requester](const AwaitedRequests::Request& request) { return request.requester == requester; };
}

}  // namespace

bool AwaitedRequests::add(std::uint32_t program, std::uint32_t requester, std::string_view flat,
                          tk::Budget& payer) {
    const std::size_t cost = flat.size() + sizeof(Request);
    if (!payer.hasRoomFor(cost)) return false;
    requests[program].push_back({requester, std::string(flat), tk::Charge(payer, cost), round});
    return true;
}

std::deque<AwaitedRequests::Request> AwaitedRequests::take(std::uint32_t program) {
    const auto waiting = requests.extract(program);
    return waiting.empty() ? std::deque<Request>() : std::move(waiting.mapped());
}

std::vector<AwaitedRequests::Request> AwaitedRequests::takeOld() {
    std::vector<Request> old;
    for (auto& [program, waiting] : requests)
        for (; !waiting.empty() && waiting.front().round != round; waiting.pop_front())
            old.push_back(std::move(waiting.front()));
    ++round;
    forgetEmpty();
    return old;
}

void AwaitedRequests::drop(std::uint32_t requester) {
    for (auto& [program, waiting] : requests) std::erase_if(waiting, isOf(requester));
    forgetEmpty();
}

bool AwaitedRequests::hasOf(std::uint32_t requester) const {
    return std::any_of(requests.begin(), requests.end(), [requester](const auto& entry) {
        return std::any_of(entry.second.begin(), entry.second.end(), isOf(requester));
    });
}

/// Drops programs without requests, so that they are not asked for again.
void AwaitedRequests::forgetEmpty() {
    std::erase_if(requests, [](const auto& entry) { return entry.second.empty(); });
}

}  // namespace hub
