#pragma once

#include <netinet/in.h>
#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/requests.h"
#include "bench/times.h"
#include "tk/fd.h"

namespace bench {

/// Sends requests, each on a connection of its own, and times them from the connect to the end of the answer.
/// It costs as little as it can, so that what it measures is the server. A connection whose SYN is lost, as the
/// listener's queue was full, counts as lost and is begun anew: waiting for the second SYN would leave the
/// server with fewer connections than are asked for, and none to lose.
class HTTPLoad {
public:
    /// `expected` is about how many requests there will be, `slots` how many connections there are at once.
    HTTPLoad(const sockaddr_in& to, Requests& requests, std::size_t expected, std::size_t slots);

    /// Answers `count` requests, with a connection in each slot all the time.
    void keepInFlight(std::size_t count);
    /// Connects in all slots at once, and serves the connections to their ends.
    void burst();
    /// Writes the figures as one line of JSON.
    void print() const;

private:
    struct Connection {
        tk::Fd socket;
        std::string request;
        std::int64_t begun = 0;
        bool isSent = false;
        std::string answer;  // its beginning
    };

    void open(Connection& connection);
    void connect(Connection& connection) const;
    void watch(const Connection& connection) const;
    void start(Connection& connection);
    void serveUntilNoneIsOpen();
    void replaceLost(std::int64_t time);
    void serve(Connection& connection, std::uint32_t events);
    /// True when the answer has ended.
    bool read(Connection& connection, bool isLast);
    void finish(Connection& connection);

    const sockaddr_in to;
    Requests& requests;
    tk::Fd epoll;
    std::vector<Connection> connections;
    Times times;
    std::size_t unstarted = 0;
    std::size_t openCount = 0;
    std::size_t failed = 0;
    std::size_t lost = 0;
    std::int64_t begun = 0;
    std::int64_t ended = 0;
    std::int64_t looked = 0;  // for lost connections
};

}  // namespace bench
