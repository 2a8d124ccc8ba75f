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
///
/// What arrives during an exchange is kept, and handed on from the loop afterwards in the order of arrival.
/// Where there is no room for more, a request is refused, and the connection is given up for anything else.
/// The end of a request that nobody waits for any more is discarded; that of one which was only asked is
/// handed on like the rest. A hub that does not take the connection says why in one error that carries no
/// number, before anything else; that is the reason of the loss then.
class BusConnection final : public Bus, private ChannelOwner {
public:
    /// Takes what the connection receives, from the loop.
    class Receiver {
    public:
        virtual ~Receiver() = default;
        /// A message arrived that ends no exchange.
        virtual void busReceived(const message& arrived) = 0;
        /// The connection ended; every exchange fails at once from now on.
        virtual void busLost(const std::string& reason) = 0;
    };

    /// Connects to the hub. Without a receiver whatever is no end of an exchange is dropped.
    /// Lifetime: `runner` and `receiver` outlive the connection.
    static Result<std::unique_ptr<BusConnection>> open(const std::string& socketPath, Runner& runner,
                                                       Receiver* receiver);
    /// Takes over a socket that is connected to the hub, and non-blocking.
    /// Lifetime: as for open().
    BusConnection(Fd socket, Runner& runner, Receiver* receiver);
    ~BusConnection() override;

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
    std::set<std::uint32_t> asked;    // numbers of requests that the loop gets the end of
    bool hasBegun = false;            // something has arrived
    message refusal;                  // an error, when the hub did not take the connection
    std::deque<std::string> waiting;  // arrived during an exchange, or behind what did; in their flat form
    std::size_t waitingBytes = 0;
    Timer<BusConnection, &BusConnection::handOn> handOnTimer;
    Budget budget;
    Channel channel;
};

}  // namespace tk
