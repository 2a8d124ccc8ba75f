#include "hub/peer.h"

#include <poll.h>

#include <utility>

#include "tk/bus.h"
#include "tk/runner.h"

namespace hub {

namespace {

tk::ChannelLimits limitsOf(uid_t user) {
    tk::ChannelLimits limits;
    if (user != 0) limits.receivedFrame = tk::memberFrameLimit;
    limits.unread = Peer::unreadLimit;
    return limits;
}

}  // namespace

Peer::Peer(tk::Fd socket, const Terms& terms, Owner& owner)
    : owner(owner),
      credentials(terms.user),
      number(terms.number),
      account(terms.budget),
      connection(account, overhead),
      channel(*tk::getRunner(), std::move(socket), *this, account, limitsOf(terms.user.uid)) {}

tk::Channel::Sent Peer::sendRequest(tk::Budget& payer, const tk::message& request) {
    if (channel.queuedBytes() > requestLimit) return tk::Channel::Sent::noRoom;
    return channel.sendFor(payer, request);
}

void Peer::resign() {
    formerNumber = std::exchange(programNumber, tk::program::hub);
}

void Peer::stampSender(tk::message& sent) const {
    const tk::Kind kind = tk::kindOf(sent);
    const bool isEnd = kind == tk::Kind::reply || kind == tk::Kind::error;
    const std::uint32_t name = isEnd && isRetired() ? formerNumber : identity();
    tk::Path path = sent.get_u32_array(tk::field::sender);
    if (path.empty() || name >= tk::program::firstClient) path.resize(1);
    path.front() = name;
    sent.insert_u32_array(tk::field::sender, std::move(path));
}

bool Peer::hasHungUp() const {
    pollfd state{channel.descriptor(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void Peer::received(tk::message sent) {
    owner.peerSent(*this, std::move(sent));
}

void Peer::broken(const std::string& reason) {
    owner.peerEnded(*this, reason);  // destroys this peer: nothing may follow
}

}  // namespace hub
