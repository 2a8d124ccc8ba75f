#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/budget.h"
#include "tk/channel.h"
#include "tk/fd.h"
#include "tk/message.h"
#include "tk/names.h"

namespace hub {

/// Who is at the other end of a bus connection, by the kernel's word.
struct Credentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

/// One connection to the hub: its channel, and what it is called on the bus.
class Peer final : private tk::ChannelOwner {
public:
    /// Takes what a peer sends, and hears of its end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The peer has sent a message, as it made it.
        virtual void peerSent(Peer& peer, tk::message received) = 0;
        /// The connection is over; the owner destroys the peer.
        virtual void peerEnded(Peer& peer, const std::string& reason) = 0;
    };

    /// How much of requests may wait for a program that does not read, whoever pays for them.
    /// Units: bytes.
    static constexpr std::size_t requestLimit = 4 * tk::frameLimit;
    /// With so much unread of what is its own, a peer is not served: less than its budget, and enough for
    /// many thousand small answers.
    /// Units: bytes.
    static constexpr std::size_t unreadLimit = std::size_t{4} * 1024 * 1024;
    /// What a connection costs by itself, rather more than less.
    /// Units: bytes.
    static constexpr std::size_t overhead = 4096;

    /// What a connection is to the hub.
    struct Terms {
        Credentials user;
        std::uint32_t number;  // the peer's own, from program::firstClient up
        tk::Budget& budget;    // what is kept for it is charged to this; outlives the peer
    };

    /// Takes a connected, non-blocking socket over.
    Peer(tk::Fd socket, const Terms& terms, Owner& owner);

    /// The peer's own number, which it has for good.
    std::uint32_t clientNumber() const { return number; }
    /// The first element of the paths that this peer sends from: its program's number, else its own.
    std::uint32_t identity() const { return isProgram() ? programNumber : number; }
    /// True when the peer has registered a program.
    bool isProgram() const { return programNumber != tk::program::hub; }
    /// The peer has registered a program, and is named by its number from now on.
    void becomeProgram(std::uint32_t program) { programNumber = program; }
    /// A program gives its number up, and is named by its own from now on. It answers what it was asked
    /// before under the former one.
    void resign();
    /// True when the peer was this program, and has given it up.
    bool hasResigned(std::uint32_t program) const { return isRetired() && formerNumber == program; }
    /// True when the peer was a program, and has given it up.
    bool isRetired() const { return formerNumber != tk::program::hub; }
    /// Who the peer is, and what is kept for it.
    const Credentials& user() const { return credentials; }
    tk::Budget& budget() const { return account; }

    /// Replaces the sender's first element by what the peer is called; the rest of the path is a program's
    /// own.
    void stampSender(tk::message& sent) const;

    /// Queues a message for the peer.
    /// Errors: false when it cannot be sent: too large, or the connection is over.
    bool send(const tk::message& source) { return channel.send(source); }
    /// Queues a request, at the expense of whoever makes it.
    [[nodiscard]] tk::Channel::Sent sendRequest(tk::Budget& payer, const tk::message& request);
    /// Ends the connection for a fault of the peer's; the owner hears of it from the loop.
    void drop(const std::string& why) { channel.breakOff(why); }
    /// True until the connection breaks.
    bool isOpen() const { return channel.isOpen(); }
    /// True when the connection was ended for a fault of the peer's.
    bool wasDropped() const { return channel.wasBrokenOff(); }
    /// True when the peer has closed its end, even if that was not served yet.
    bool hasHungUp() const;

private:
    void received(tk::message received) override;
    void broken(const std::string& reason) override;

    Owner& owner;
    Credentials credentials;
    std::uint32_t number;
    std::uint32_t programNumber = tk::program::hub;  // the hub's own number: none
    std::uint32_t formerNumber = tk::program::hub;   // of the program that was given up
    tk::Budget& account;
    tk::Charge connection;
    tk::Channel channel;
};

}  // namespace hub
