#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "tk/bus.h"
#include "tk/channel.h"

namespace tk {

/// A program's connection to the hub.
/// What arrives during an exchange is kept; the loop hands it on afterwards, in the order of arrival. When
/// there is no room left, a request is refused; anything else costs the connection.
/// The end of a request that was sent by ask() is handed on like the rest. An end that nobody waits for any
/// more is discarded.
/// A hub that turns the connection away first says why, in one error without a number. That is then the
/// reason of the loss.
class BusConnection final : public Bus, private ChannelOwner {
public:
    /// Takes what the connection receives, from the loop.
    class Receiver {
    public:
        virtual ~Receiver() = default;
        /// A message arrived that does not end an exchange.
        virtual void busReceived(const message& arrived) = 0;
        /// The connection ended; every exchange fails at once from now on.
        virtual void busLost(const std::string& reason) = 0;
    };

    /// Connects to the hub. Without a receiver everything but the ends of exchanges is dropped.
    /// Lifetime: `runner` and `receiver` outlive the connection.
    static Result<std::unique_ptr<BusConnection>> open(const std::string& socketPath, Runner& runner,
                                                       Receiver* receiver);
    /// Takes over a non-blocking socket that is connected to the hub.
    /// Lifetime: as for open().
    BusConnection(Fd socket, Runner& runner, Receiver* receiver);
    ~BusConnection() override;

    /// As declared by Bus.
    [[nodiscard]] message exchange(const message& request, const Path& from, std::uint32_t command,
                                   std::uint32_t timeout) override;
    [[nodiscard]] message ask(const message& request, const Path& from, std::uint32_t command,
                              std::uint32_t& number) override;
    void forget(std::uint32_t number) override { asked.erase(number); }
    void post(message stamped) override;

    /// True until the connection ends.
    bool isOpen() const { return channel.isOpen(); }

private:
    void received(message arrived) override;
    void broken(const std::string& reason) override;
    [[nodiscard]] bool noteRefusal(const message& arrived);
    [[nodiscard]] message gone();
    [[nodiscard]] message send(const message& request, const Path& from, std::uint32_t command,
                               std::uint32_t& number);
    [[nodiscard]] bool isForTheLoop(const message& arrived);
    void keep(const message& arrived);
    void handOn();
    [[nodiscard]] message awaitEnd(std::uint32_t number, std::uint32_t timeout);

    Receiver* receiver;
    std::uint32_t numbers = 0;
    std::set<std::uint32_t> asked;  // requests whose end goes to the loop
    bool hasBegun = false;          // something has arrived
    message refusal;                // an error when the hub turned us away
    // Messages that arrived during an exchange, and others after them, in flat form.
    std::deque<std::string> waiting;
    std::size_t waitingBytes = 0;
    Timer<BusConnection, &BusConnection::handOn> handOnTimer;
    Budget budget;
    Channel channel;
};

}  // namespace tk
