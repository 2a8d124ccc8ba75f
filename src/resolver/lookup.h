#pragma once

#include <ares.h>

#include <cstdint>
#include <memory>
#include <string>

#include "resolver/cache.h"
#include "tk/timer.h"

namespace resolver {

/// One name on its way: through the hosts file, then the name servers, as the system's files say. It reads
/// them anew each time, never waits for anybody, and ends within a second.
///
/// It has a channel of the resolver library to itself: with a lookup that is given up its sockets go too, and
/// nothing of it is left; and each name is asked for from another port, which is hard to guess.
class Lookup {
public:
    /// How long a lookup may take.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t budgetTicks = 100;
    /// How long answers may be used again.
    /// Units: seconds.
    static constexpr std::uint32_t longestLifetime = 3600;
    static constexpr std::uint32_t unknownLifetime = 30;  // the name servers know no address
    static constexpr std::uint32_t failureLifetime = 3;   // none of them has said anything useful

    /// Hears of the end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The lookup of `name` is over. The owner destroys the lookup in here.
        virtual void lookupEnded(const std::string& name, const Answer& answer) = 0;
    };

    /// `name` is a host name. `servers` are name servers with their ports, comma-separated, to be asked
    /// instead of the system's, and without its search domains; empty for none.
    Lookup(std::string name, std::string servers, Owner& owner);
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;
    /// Gives the lookup up, if it has not ended; the owner hears nothing then.
    ~Lookup() = default;

    /// Begins. It may end in here, which deletes this: nothing may follow.
    void start();

private:
    struct Close {
        void operator()(ares_channeldata* channel) const { ares_destroy(channel); }
    };

    static void socketChanged(void* lookup, ares_socket_t socket, int wantsRead, int wantsWrite);
    static void answered(void* lookup, int status, int timeouts, ares_addrinfo* result);

    [[nodiscard]] int openChannel();
    void ready(int socket, std::uint32_t events);
    void retry();
    void expired();
    void process(ares_socket_t readableSocket, ares_socket_t writableSocket);
    void proceed();
    void end();

    const std::string name;
    const std::string servers;
    Owner& owner;
    bool hasAnswer = false;
    Answer answer;
    tk::Timer<Lookup, &Lookup::retry> retryTimer{*this};
    tk::Timer<Lookup, &Lookup::expired> budgetTimer{*this};
    std::unique_ptr<ares_channeldata, Close> channel;  // goes first: it tells of the sockets that it closes
};

}  // namespace resolver
