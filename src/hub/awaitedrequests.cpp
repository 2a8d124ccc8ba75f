#include "hub/awaitedrequests.h"

#include <algorithm>

namespace router {

bool AwaitedProgram::add(std::uint32_t requester, std::string_view flat, tk::Budget& payer) {
    const std::size_t cost = flat.size() + sizeof(Request);
    if (!payer.hasRoomFor(cost)) return false;
    requests.push_back({requester, std::string(flat), tk::Charge(payer, cost), round});
    return true;
}

std::deque<AwaitedProgram::Request> AwaitedProgram::takeOld() {
    std::deque<Request> old;
    for (; !requests.empty() && requests.front().round != round; requests.pop_front())
        old.push_back(std::move(requests.front()));
    ++round;
    return old;
}

void AwaitedProgram::drop(std::uint32_t requester) {
    std::erase_if(requests, [requester](const Request& request) { return request.requester == requester; });
}

bool AwaitedProgram::hasOf(std::uint32_t requester) const {
    return std::any_of(requests.begin(), requests.end(),
                       [requester](const Request& request) { return request.requester == requester; });
}

}  // namespace router
