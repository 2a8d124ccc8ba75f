#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/requests.h"
#include "bench/times.h"
#include "tk/fd.h"

namespace bench {

/// Sends requests that bring events, is the subscriber itself, and times from the end of the answer until the
/// last event is there whole.
class EventLoad {
public:
    /// Subscribers are expected at `port` of any address.
    EventLoad(const sockaddr_in& to, std::uint16_t port);

    /// Sends `count` requests; each brings `subscribers` events. `undo` follows each untimed, and brings none;
    /// in it @SID@ stands for the subscription that the answer named. An empty text is not sent.
    void measure(Requests& requests, std::size_t count, std::size_t subscribers, const std::string& undo);
    /// Writes the figures as one line of JSON.
    void print() const;

private:
    /// Sends the request and returns the answer, which is a good one.
    std::string ask(const std::string& request) const;
    /// Takes one event, and returns when it was there.
    std::int64_t takeEvent() const;

    const sockaddr_in to;
    tk::Fd listener;
    Times times{0};
};

}  // namespace bench
