#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <string>
#include <string_view>

#include "tk/budget.h"
#include "tk/fd.h"
#include "tk/frame.h"
#include "tk/message.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace tk {

/// What a channel tells its owner.
class ChannelOwner {
public:
    virtual ~ChannelOwner() = default;
    /// One message arrived. The owner may destroy the channel.
    virtual void received(message arrived) = 0;
    /// The channel is broken: closed by the peer, malformed, or beyond its budget. It is not watched any
    /// more; the owner may destroy it.
    virtual void broken(const std::string& reason) = 0;
};

/// What a channel takes and gives.
/// Units: bytes.
struct ChannelLimits {
    std::size_t receivedFrame = frameLimit;
    std::size_t sentFrame = frameLimit;
    /// With so much unread of what it is sent, nothing more is taken from the peer until it has read on.
    std::size_t unread = std::numeric_limits<std::size_t>::max();
    Runner::Priority priority = Runner::Priority::normal;
};

/// One end of a bus connection: frames over a non-blocking stream socket, with a queue of what the peer did
/// not read yet. Frames that are not complete and frames that wait to be read are charged to the channel's
/// budget, and a channel that takes it over its limit breaks.
///
/// A peer that ended is still served with what it sent before; one that was broken off, for a fault of its
/// own or by the owner, is not.
class Channel {
public:
    enum class Sent : std::uint8_t { yes, no, noRoom };

    /// Takes a connected, non-blocking socket over, and watches it from now on.
    /// Lifetime: the runner, the owner and the budget outlive the channel.
    Channel(Runner& runner, Fd connected, ChannelOwner& owner, Budget& budget,
            const ChannelLimits& limits = {});
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();

    /// Queues a message and writes as much as the peer takes now. False when the message cannot be sent,
    /// because it is too large or nested too deep (the channel stays open then) or the channel is, or thereby
    /// gets, broken; the owner hears of that from the loop, never from within this call.
    bool send(const message& source) { return sendFor(budget, source) == Sent::yes; }
    /// The same at the expense of another budget, which never breaks the channel: a message for which it has
    /// no room is not sent, `noRoom`.
    /// Lifetime: the budget outlives what is queued.
    [[nodiscard]] Sent sendFor(Budget& payer, const message& source);

    /// Waits, at most `milliseconds`, until something can be read or a part of the queue written, and does
    /// so. For synchronous exchanges: nothing is handed to the owner. False when the channel is broken.
    [[nodiscard]] bool pump(int milliseconds);
    /// The next message that was read. False when there is none.
    [[nodiscard]] bool take(message& out);

    /// Breaks the channel off for a reason of the owner's, who hears of it from the loop.
    void breakOff(const std::string& why);

    /// True until the channel breaks.
    bool isOpen() const { return state.isOk(); }
    /// True when the channel was broken by this side, for a fault of the peer's.
    bool wasBrokenOff() const { return isBrokenOff; }
    /// What the peer has not read, whoever pays for it.
    /// Units: bytes.
    std::size_t queuedBytes() const { return queued; }
    int descriptor() const { return socket.get(); }

private:
    struct Frame {
        std::string bytes;
        Charge charge;
    };

    void ready(int fd, std::uint32_t events);
    void deliver();
    [[nodiscard]] bool readSome();
    void chargeUnfinished();
    [[nodiscard]] std::size_t writeNow(std::string_view bytes);
    void queue(std::string_view rest, Budget& payer);
    void dropWritten(std::size_t count);
    void flush();
    void endWriting();
    void end(const std::string& why);
    [[nodiscard]] bool isServed() const { return isOpen() ? ownQueued < limits.unread : !isBrokenOff; }
    void watchWhatIsDue();

    Runner& runner;
    Fd socket;
    Watch watch{runner};
    ChannelOwner& owner;
    Budget& budget;
    const ChannelLimits limits;
    bool isBehind = false;  // what was received is not handed on yet, for it was the others' turn
    FrameReader reader;
    Charge unfinished;  // what the reader keeps
    std::deque<Frame> outgoing;
    std::size_t written = 0;    // of the first one
    std::size_t queued = 0;     // what all of them cost
    std::size_t ownQueued = 0;  // what those cost that the channel's own budget pays for
    Status state;               // why the channel is broken, once it is
    bool isBrokenOff = false;   // on this side: what the peer sent does not count any more
    std::uint32_t watched = 0;
    bool* gone = nullptr;  // set by the destructor, for the call of the owner that is under way
    // For what arrived or broke while nobody was called.
    Timer<Channel, &Channel::deliver> delivery{*this, runner};
};

}  // namespace tk
