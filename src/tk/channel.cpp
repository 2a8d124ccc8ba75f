#include "tk/channel.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "tk/log.h"

namespace tk {

namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;

}  // namespace

Channel::Channel(Fd connected, ChannelOwner& owner, std::size_t queueLimit, Runner::Priority priority)
    : socket(std::move(connected)), owner(owner), queueLimit(queueLimit), priority(priority) {
    watchFor(false);
}

Channel::~Channel() {
    if (gone) *gone = true;
}

void Channel::watchFor(bool writes) {
    watchesWrites = writes;
    watch.start<Channel, &Channel::ready>(socket.get(), *this, writes ? readable | writable : readable,
                                          priority);
}

void Channel::breakOff(const std::string& why) {
    if (!isOpen()) return;
    reason = why;
    watch.stop();
    delivery.arm(0);
}

bool Channel::send(const message& source) {
    if (!isOpen() || !appendFrame(outgoing, source)) return false;
    flush();
    if (outgoing.size() - written > queueLimit) breakOff("it does not read what it is sent");
    return isOpen();
}

void Channel::flush() {
    while (written < outgoing.size()) {
        const ssize_t count = ::send(socket.get(), outgoing.data() + written, outgoing.size() - written,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) break;
        if (count < 0) return endWriting();
        written += static_cast<std::size_t>(count);
    }
    if (written == outgoing.size())
        outgoing.clear();
    else
        outgoing.erase(0, written);
    written = 0;
    if (watchesWrites == outgoing.empty()) watchFor(!outgoing.empty());
}

/// The peer is gone, but what it sent before is still to be handed on.
void Channel::endWriting() {
    const std::string why = errorText();
    while (readSome()) {
    }
    breakOff(why);
}

/// True when there was something to read, so that there may be more.
bool Channel::readSome() {
    char bytes[readSize];
    const ssize_t count = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0)
        reader.append(std::string_view(bytes, static_cast<std::size_t>(count)));
    else if (count == 0)
        breakOff("it closed the connection");
    else if (errno != EAGAIN && errno != EINTR)
        breakOff(errorText());
    return count > 0;
}

bool Channel::take(message& out) {
    const FrameReader::Result result = reader.next(out);
    if (result == FrameReader::Result::malformed) breakOff("it sent a malformed frame");
    return result == FrameReader::Result::message;
}

bool Channel::pump(int milliseconds) {
    if (!isOpen()) return false;
    const bool hasQueue = !outgoing.empty();
    pollfd waiting{socket.get(), static_cast<short>(hasQueue ? POLLIN | POLLOUT : POLLIN), 0};
    if (::poll(&waiting, 1, milliseconds) <= 0) return true;
    if (hasQueue && (waiting.revents & POLLOUT)) flush();
    if (isOpen() && (waiting.revents & (POLLIN | POLLHUP | POLLERR)))
        (void)readSome();  // the caller waits again
    delivery.arm(0);       // whatever is not taken now is the owner's
    return isOpen();
}

void Channel::ready(int, std::uint32_t events) {
    if (events & writable) flush();
    if (isOpen() && (events & readable)) (void)readSome();  // the next turn reads on
    deliver();
}

void Channel::deliver() {
    bool destroyed = false;
    gone = &destroyed;
    message arrived;
    while (take(arrived)) {
        owner.received(std::move(arrived));
        if (destroyed) return;
    }
    gone = nullptr;
    if (isOpen()) return;
    delivery.disarm();
    const std::string why = reason;  // outlives this channel
    owner.broken(why);               // may destroy this channel: nothing may follow
}

}  // namespace tk
