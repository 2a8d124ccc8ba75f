#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/times.h"
#include "tk/fd.h"

namespace bench {

/// Sends one datagram again and again, and times the answers.
class DatagramLoad {
public:
    DatagramLoad(const sockaddr_in& to, std::string datagram);

    /// Sends the datagram `count` times, and times the first answer to each. Each brings `answers` answers; the
    /// next goes out when all of them have come.
    void askOneByOne(std::size_t count, std::size_t answers);
    /// Takes `count` answers, with `window` datagrams on their way all the time. Each brings one answer.
    void keepInFlight(std::size_t count, std::size_t window);
    /// Writes the figures as one line of JSON.
    void print() const;

private:
    void send() const;
    /// True when an answer has come in time.
    bool receive() const;

    const sockaddr_in to;
    const std::string datagram;
    tk::Fd socket;
    Times times{0};
    std::size_t count = 0;
    std::size_t lost = 0;
    std::int64_t begun = 0;
    std::int64_t ended = 0;
};

}  // namespace bench
