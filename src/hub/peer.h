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

/// Who is at the other end of a bus connection, as the kernel says.
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
        /// The peer has sent this message; nothing in it has been changed.
        virtual void peerSent(Peer& peer, tk::message received) = 0;
        /// The connection is over; the owner destroys the peer.
        virtual void peerEnded(Peer& peer, const std::string& reason) = 0;
    };

    /// How many bytes of requests may wait for a program that does not read, whoever pays for them.
    /// Units: bytes.
    static constexpr std::size_t requestLimit = 4 * tk::frameLimit;
    /// A peer that leaves this much of its own unread is not served. It is less than its budget, and enough
    /// for many thousand small answers.
    /// Units: bytes.
    static constexpr std::size_t unreadLimit = std::size_t{4} * 1024 * 1024;
    /// What a connection costs by itself, estimated high.
    /// Units: bytes.
    static constexpr std::size_t overhead = 4096;

    /// What a connection is to the hub.
    struct Terms {
        Credentials user;
        std::uint32_t number = 0;  // the peer's own, from program::firstClient up
        tk::Budget& budget;        // pays for the peer; outlives it
    };

    /// Takes over a connected, non-blocking socket.
    Peer(tk::Fd socket, const Terms& terms, Owner& owner);

    /// The peer's own number, which it has for good.
    std::uint32_t clientNumber() const { return number; }
    /// The first element of this peer's paths as a sender: its program's number, else its own.
    std::uint32_t identity() const { return isProgram() ? programNumber : number; }
    /// True when the peer has registered a program.
    bool isProgram() const { return programNumber != tk::program::hub; }
    /// The peer has registered a program, and is named by its number from now on.
    void becomeProgram(std::uint32_t program) { programNumber = program; }
    /// The peer gives up its program's number, and is named by its own from now on. It still answers earlier
    /// requests under the former one.
    void resign();
    /// True when the peer was this program, and has given up its number.
    bool hasResigned(std::uint32_t program) const { return isRetired() && formerNumber == program; }
    /// True when the peer was a program, and has given up its number.
    bool isRetired() const { return formerNumber != tk::program::hub; }
    /// Who the peer is, and the budget that pays for it.
    const Credentials& user() const { return credentials; }
    tk::Budget& budget() const { return account; }

    /// Replaces the first element of the sender's path by what the peer is called. A program chooses the
    /// rest; a client has none.
    void stampSender(tk::message& sent) const;

    /// Queues a message for the peer.
    /// Errors: false when it is too large, or the connection is over.
    bool send(const tk::message& source) { return channel.send(source); }
    /// Queues a request, at the expense of its maker.
    [[nodiscard]] tk::Channel::Sent sendRequest(tk::Budget& payer, const tk::message& request);
    /// Ends the connection for a fault of the peer's; the owner hears of it from the loop.
    void drop(const std::string& why) { channel.breakOff(why); }
    /// True until the connection breaks.
    bool isOpen() const { return channel.isOpen(); }
    /// True when the connection was ended for a fault of the peer's.
    bool wasDropped() const { return channel.wasBrokenOff(); }
    /// True when the peer has closed its end, even if the loop has not noticed yet.
    bool hasHungUp() const;

private:
    void received(tk::message received) override;
    void broken(const std::string& reason) override;

    Owner& owner;
    Credentials credentials;
    std::uint32_t number;
    std::uint32_t programNumber = tk::program::hub;  // the hub's own number: none
    std::uint32_t formerNumber = tk::program::hub;   // the program's, once given up
    tk::Budget& account;
    tk::Charge connection;
    tk::Channel channel;
};

}  // namespace hub
