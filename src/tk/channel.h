#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/fd.h"
#include "tk/frame.h"
#include "tk/message.h"
#include "tk/timer.h"

namespace tk {

/// What a channel tells its owner.
class ChannelOwner {
public:
    virtual ~ChannelOwner() = default;
    /// One message arrived. The owner may destroy the channel.
    virtual void received(message arrived) = 0;
    /// The channel is broken: closed by the peer, malformed, or its queue is over the limit. It is not
    /// watched any more; the owner may destroy it.
    virtual void broken(const std::string& reason) = 0;
};

/// One end of a bus connection: frames over a non-blocking stream socket, with a bounded queue of what the
/// peer did not read yet.
class Channel {
public:
    /// Takes a connected, non-blocking socket over, and watches it from now on.
    /// Units: `queueLimit` in bytes. Lifetime: the owner outlives the channel.
    Channel(Fd connected, ChannelOwner& owner, std::size_t queueLimit,
            Runner::Priority priority = Runner::Priority::normal);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();

    /// Queues a message and writes as much as the peer takes now. False when the message cannot be sent,
    /// because it is too large or nested too deep (the channel stays open then) or the channel is, or thereby
    /// gets, broken; the owner hears of that from the loop, never from within this call.
    bool send(const message& source);

    /// Waits, at most `milliseconds`, until something can be read or a part of the queue written, and does
    /// so. For synchronous exchanges: nothing is handed to the owner. False when the channel is broken.
    [[nodiscard]] bool pump(int milliseconds);
    /// The next message that was read. False when there is none.
    [[nodiscard]] bool take(message& out);

    /// Breaks the channel off for a reason of the owner's, who hears of it from the loop.
    void breakOff(const std::string& why);

    /// True until the channel breaks.
    bool isOpen() const { return reason.empty(); }
    int descriptor() const { return socket.get(); }

private:
    void ready(int fd, std::uint32_t events);
    void deliver();
    [[nodiscard]] bool readSome();
    void endWriting();
    void flush();
    void watchFor(bool writes);

    Fd socket;
    Watch watch;
    ChannelOwner& owner;
    const std::size_t queueLimit;
    const Runner::Priority priority;
    FrameReader reader;
    std::string outgoing;
    std::size_t written = 0;  // of `outgoing`
    std::string reason;       // why the channel is broken
    bool watchesWrites = false;
    bool* gone = nullptr;  // set by the destructor, for the call of the owner that is under way
    Timer<Channel, &Channel::deliver> delivery{*this};  // for what arrived or broke while nobody was called
};

}  // namespace tk
