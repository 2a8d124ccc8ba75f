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

/// The limits of a channel.
/// Units: bytes.
struct ChannelLimits {
    std::size_t receivedFrame = frameLimit;
    std::size_t sentFrame = frameLimit;
    /// Once the peer leaves this much unread, nothing more is taken from it until it has read on.
    std::size_t unread = std::numeric_limits<std::size_t>::max();
    Runner::Priority priority = Runner::Priority::normal;
};

/// One end of a bus connection: frames over a non-blocking stream socket, with a queue of what the peer has
/// not read yet. Incomplete frames and frames that wait to be read are charged to the channel's budget; the
/// channel breaks when it takes the budget over its limit.
///
/// When a peer closes, what it sent before is still served. When a channel is broken off, for a fault of the
/// peer's or by the owner, nothing more is.
class Channel {
public:
    enum class Sent : std::uint8_t { yes, no, noRoom };

    /// Takes over a connected, non-blocking socket, and watches it from now on.
    /// Lifetime: the runner, the owner and the budget outlive the channel.
    Channel(Runner& runner, Fd connected, ChannelOwner& owner, Budget& budget,
            const ChannelLimits& limits = {});
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();

    /// Queues a message and writes as much as the peer takes now.
    /// Errors: false when the message is too large or nested too deep (the channel then stays open), or when
    /// the channel is or becomes broken. The owner hears of that from the loop, never from within this call.
    bool send(const message& source) { return sendFor(budget, source) == Sent::yes; }
    /// The same at the expense of another budget. That never breaks the channel: a message for which the
    /// budget has no room is not sent, and the answer is `noRoom`.
    /// Lifetime: the budget outlives what is queued.
    [[nodiscard]] Sent sendFor(Budget& payer, const message& source);

    /// Waits at most `milliseconds` until it can read something or write a part of the queue, and does so.
    /// For synchronous exchanges: nothing is handed to the owner. False when the channel is broken.
    [[nodiscard]] bool pump(int milliseconds);
    /// The next message that was read. False when there is none.
    [[nodiscard]] bool take(message& out);

    /// Breaks the channel for a reason of the owner's, which hears of it from the loop.
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
    // True while received messages wait because it was the others' turn.
    bool isBehind = false;
    FrameReader reader;
    Charge unfinished;  // what the reader keeps
    std::deque<Frame> outgoing;
    std::size_t written = 0;    // of the first frame
    std::size_t queued = 0;     // the cost of all frames
    std::size_t ownQueued = 0;  // the channel's own budget's part of it
    Status state;               // why the channel is broken, once it is
    bool isBrokenOff = false;   // by this side: what the peer sent is ignored
    std::uint32_t watched = 0;
    // Set to true by the destructor, for a call of the owner that is under way.
    bool* gone = nullptr;
    // For what arrived or broke while nobody was called.
    Timer<Channel, &Channel::deliver> delivery{*this, runner};
};

}  // namespace tk
