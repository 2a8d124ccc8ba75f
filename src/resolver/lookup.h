#pragma once

#include <ares.h>

#include <cstdint>
#include <memory>
#include <string>

#include "resolver/cache.h"
#include "tk/timer.h"

namespace resolver {

/// Looks up one name in the hosts file, then at the name servers, as the system's files say. It reads those
/// files anew each time, never blocks, and ends within a second.
///
/// Each lookup has its own channel of the resolver library. So a lookup that is given up takes its sockets
/// with it, and each name is asked for from another port, which is hard to guess.
class Lookup {
public:
    /// How long a lookup may take.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t budgetTicks = 100;
    /// How long answers may be reused.
    /// Units: seconds.
    static constexpr std::uint32_t longestLifetime = 3600;
    static constexpr std::uint32_t unknownLifetime = 30;  // the name servers know no address
    static constexpr std::uint32_t failureLifetime = 3;   // no name server gave a useful answer

    /// Is told of the end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// The lookup of `name` has ended. The owner destroys the lookup here.
        virtual void lookupEnded(const std::string& name, const Answer& answer) = 0;
    };

    /// `name` is a host name. `servers` lists name servers with their ports, separated by commas, to be asked
    /// in place of the system's and without its search domains. Empty means the system's.
    Lookup(std::string name, std::string servers, Owner& owner);
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;
    /// Gives up a lookup that has not ended, without telling the owner.
    ~Lookup() = default;

    /// Begins. The lookup may end within the call, which deletes this: nothing may follow.
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
    std::unique_ptr<ares_channeldata, Close> channel;  // goes first: it reports the sockets that it closes
};

}  // namespace resolver
