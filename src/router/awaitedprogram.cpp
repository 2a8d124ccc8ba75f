#include "router/awaitedprogram.h"

namespace router {

bool AwaitedProgram::add(Request request) {
    if (requests.size() >= limit) return false;
    request.round = round;
    requests.push_back(std::move(request));
    return true;
}

std::size_t AwaitedProgram::bytes(const std::function<bool(const Request&)>& counts) const {
    std::size_t sum = 0;
    for (const Request& request : requests)
        if (counts(request)) sum += request.flat.size();
    return sum;
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

}  // namespace router
