#include "router/hubpeer.h"

#include <poll.h>

#include <utility>

#include "tk/bus.h"

namespace router {

HubPeer::HubPeer(tk::Fd socket, const Credentials& credentials, std::uint32_t number, Owner& owner)
    : owner(owner), credentials(credentials), number(number), channel(std::move(socket), *this, queueLimit) {}

void HubPeer::resign() {
    formerNumber = std::exchange(programNumber, tk::program::hub);
}

void HubPeer::stampSender(tk::message& sent) const {
    const tk::Kind kind = tk::kindOf(sent);
    const bool isEnd = kind == tk::Kind::reply || kind == tk::Kind::error;
    const std::uint32_t name = isEnd && isRetired() ? formerNumber : identity();
    tk::Path path = sent.get_u32_array(tk::field::sender);
    if (path.empty() || name >= tk::program::firstClient) path.resize(1);
    path.front() = name;
    sent.insert_u32_array(tk::field::sender, std::move(path));
}

bool HubPeer::hasHungUp() const {
    pollfd state{channel.descriptor(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void HubPeer::received(tk::message sent) {
    owner.peerSent(*this, std::move(sent));
}

void HubPeer::broken(const std::string& reason) {
    owner.peerEnded(*this, reason);  // destroys this peer: nothing may follow
}

}  // namespace router
