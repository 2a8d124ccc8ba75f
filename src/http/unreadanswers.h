#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "tk/fd.h"
#include "tk/timer.h"

namespace gateway {

/// Limits what the kernel holds of answers that clients do not take. Usually a connection is closed right after its
/// answer, and the kernel goes on alone with what its client has not taken yet. Hosts that never read could so have it
/// hold any amount, which counts as the daemon's memory. As soon as much has been answered in a short time, sockets
/// are kept until their clients have taken everything, for 10 s at most, and only so many of them.
class UnreadAnswers {
public:
    static constexpr std::size_t freely =
        std::size_t{32} * 1024 * 1024;              // bytes in a window, with what the kernel adds to them
    static constexpr std::uint64_t window = 10000;  // milliseconds
    static constexpr std::size_t keptLimit = 256;   // sockets

    /// Counts an answer of so many bytes, which was just sent. True when its socket may be closed: little was
    /// answered of late, or the client has taken all of it.
    [[nodiscard]] bool mayClose(int socket, std::size_t bytes);

    /// Keeps a socket that may not be closed yet, and tells its client that nothing else comes. At the limit, the
    /// oldest one is closed, and what was not taken of it is dropped.
    void keep(tk::Fd socket);

    /// How many sockets are kept.
    std::size_t count() const { return kept.size(); }

private:
    struct Kept {
        tk::Fd socket;
        std::uint64_t until;
    };

    void closeFinished();

    std::deque<Kept> kept;  // the oldest first
    std::uint64_t windowEnd = 0;
    std::size_t answered = 0;  // in this window
    tk::Timer<UnreadAnswers, &UnreadAnswers::closeFinished> timer{*this};
};

}  // namespace gateway
