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
/// It costs as little as it can, so that what it measures is the server.
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
    void serve(Connection& connection, std::uint32_t events);
    /// True when the answer has ended.
    bool read(Connection& connection, bool isLast);
    void finish(Connection& connection);
    void countIfLost(const Connection& connection, std::int64_t duration);

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
    // How far it had come when the last request was started. From then on not all slots are in use.
    std::size_t fullCount = 0;
    std::int64_t fullUntil = 0;
};

}  // namespace bench
