#include "tk/channel.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <utility>

#include "tk/log.h"
#include "tk/runner.h"

namespace tk {

namespace {

constexpr std::size_t readSize = std::size_t{64} * 1024;
// As much as a socket holds: a peer that reads nothing any more may go on writing.
constexpr int lastReads = 16;
constexpr std::size_t framesPerWrite = 64;
constexpr std::uint64_t turnMilliseconds = 2;  // for one peer, while others wait
constexpr std::size_t allocatorBytes = 32;     // that each frame costs the allocator

}  // namespace

Channel::Channel(Runner& runner, Fd connected, ChannelOwner& owner, Budget& budget,
                 const ChannelLimits& limits)
    : runner(runner),
      socket(std::move(connected)),
      owner(owner),
      budget(budget),
      limits(limits),
      reader(limits.receivedFrame),
      unfinished(budget, 0) {
    watchWhatIsDue();
}

Channel::~Channel() {
    if (gone) *gone = true;
}

void Channel::watchWhatIsDue() {
    if (!isOpen()) return watch.stop();
    const std::uint32_t wanted = (isServed() && !isBehind ? readable : 0) | (outgoing.empty() ? 0 : writable);
    if (wanted == watched) return;
    watched = wanted;
    watch.start<Channel, &Channel::ready>(socket.get(), *this, wanted, limits.priority);
}

void Channel::breakOff(const std::string& why) {
    if (!isOpen()) return;
    isBrokenOff = true;
    end(why);
}

void Channel::end(const std::string& why) {
    state = Status::failure(why);
    watch.stop();
    outgoing.clear();  // at once: others may need the room
    written = queued = ownQueued = 0;
    delivery.arm(0);
}

Channel::Sent Channel::sendFor(Budget& payer, const message& source) {
    std::string frame;
    if (!isOpen() || !appendFrame(frame, source, limits.sentFrame)) return Sent::no;
    const bool isOwn = &payer == &budget;
    if (!isOwn && !outgoing.empty() && !payer.hasRoomFor(frame.size())) return Sent::noRoom;
    (void)flushLog();  // what the peer does next may depend on the lines
    const std::size_t count = outgoing.empty() ? writeNow(frame) : 0;
    if (!isOpen()) return Sent::no;
    if (count < frame.size()) queue(std::string_view(frame).substr(count), payer);
    if (isOwn && budget.isOver()) breakOff("it does not read what it is sent");
    return isOpen() ? Sent::yes : Sent::no;
}

/// Writes as much as the peer takes, and returns how much that was.
std::size_t Channel::writeNow(std::string_view bytes) {
    std::size_t count = 0;
    while (count < bytes.size()) {
        const ssize_t part =
            ::send(socket.get(), bytes.data() + count, bytes.size() - count, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (part < 0 && errno == EINTR) continue;
        if (part < 0 && errno != EAGAIN) endWriting();
        if (part < 0) break;
        count += static_cast<std::size_t>(part);
    }
    return count;
}

void Channel::queue(std::string_view rest, Budget& payer) {
    const std::size_t cost = rest.size() + sizeof(Frame) + allocatorBytes;
    outgoing.push_back({std::string(rest), Charge(payer, cost)});
    queued += cost;
    if (&payer == &budget) ownQueued += cost;
    watchWhatIsDue();
}

void Channel::flush() {
    while (!outgoing.empty()) {
        iovec parts[framesPerWrite];
        msghdr header{};
        header.msg_iov = parts;
        std::size_t offset = written;
        for (Frame& frame : outgoing) {
            if (header.msg_iovlen == framesPerWrite) break;
            parts[header.msg_iovlen++] = {frame.bytes.data() + offset, frame.bytes.size() - offset};
            offset = 0;
        }
        const ssize_t count = ::sendmsg(socket.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) break;
        if (count < 0) return endWriting();
        dropWritten(static_cast<std::size_t>(count));
    }
    watchWhatIsDue();
}

void Channel::dropWritten(std::size_t count) {
    written += count;
    while (!outgoing.empty() && written >= outgoing.front().bytes.size()) {
        const Frame& frame = outgoing.front();
        written -= frame.bytes.size();
        queued -= frame.charge.bytes();
        if (frame.charge.isOf(budget)) ownQueued -= frame.charge.bytes();
        outgoing.pop_front();
    }
}

/// The peer is gone, but what it sent before must still be handed on.
void Channel::endWriting() {
    const std::string why = errorText();
    for (int reads = 0; reads < lastReads && readSome(); ++reads) {
    }
    if (isOpen()) end(why);
}

/// True when there was something to read, so that there may be more.
bool Channel::readSome() {
    static char bytes[readSize];  // on the stack each of its pages would be touched
    const ssize_t count = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0)
        reader.append(std::string_view(bytes, static_cast<std::size_t>(count)));
    else if (count == 0)
        end("it closed the connection");
    else if (errno != EAGAIN && errno != EINTR)
        end(errorText());
    return count > 0;
}

bool Channel::take(message& out) {
    const FrameReader::Result result = reader.next(out);
    if (result == FrameReader::Result::malformed) breakOff("it sent a malformed frame");
    if (result == FrameReader::Result::tooLarge) breakOff("it sent a frame that is too large");
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
    delivery.arm(0);       // the owner gets what is not taken now
    return isOpen();
}

void Channel::ready(int, std::uint32_t events) {
    if (events & writable) flush();
    if (isOpen() && (events & readable) && !isBehind) (void)readSome();  // the next turn reads on
    deliver();
}

void Channel::deliver() {
    bool destroyed = false;
    gone = &destroyed;
    message arrived;
    const std::uint64_t turnEnd = runner.now() + turnMilliseconds;
    isBehind = false;
    while (!isBehind && isServed() && take(arrived)) {
        owner.received(std::move(arrived));
        if (destroyed) return;
        isBehind = runner.now() >= turnEnd;
    }
    gone = nullptr;
    chargeUnfinished();
    const bool goesOn = isBehind && !isBrokenOff;
    if (goesOn) delivery.arm(0);
    if (isOpen()) return watchWhatIsDue();
    if (goesOn) return;  // first hand on what the peer sent before it went
    delivery.disarm();
    const std::string why = state.reason();  // outlives this channel
    owner.broken(why);                       // may destroy this channel: nothing may follow
}

void Channel::chargeUnfinished() {
    unfinished.set(reader.keptBytes());
    if (budget.isOver() && unfinished.bytes() != 0) breakOff("there is no room for what it sends");
}

}  // namespace tk
