#include "router/awaitedprogram.h"

namespace router {

bool AwaitedProgram::add(std::uint32_t requester, const tk::message& request, std::size_t bytes) {
    if (requests.size() >= limit) return false;
    requests.push_back({requester, request, bytes, round});
    return true;
}

std::size_t AwaitedProgram::bytesOf(std::uint32_t requester) const {
    std::size_t bytes = 0;
    for (const Request& request : requests)
        if (request.requester == requester) bytes += request.bytes;
    return bytes;
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
