#include "router/awaitedprogram.h"

namespace router {

AwaitedProgram::AwaitedProgram(std::uint32_t program, Owner& owner) : program(program), owner(owner) {
    timer.arm(limitTicks);
}

bool AwaitedProgram::add(std::uint32_t requester, const tk::message& request) {
    if (requests.size() >= limit) return false;
    requests.push_back({requester, request});
    return true;
}

void AwaitedProgram::drop(std::uint32_t requester) {
    std::erase_if(requests, [requester](const Request& request) { return request.requester == requester; });
}

void AwaitedProgram::expired() {
    owner.awaitedTooLong(program);  // may destroy this object: nothing may follow
}

}  // namespace router
