#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <span>

#include "netlink/socket.h"
#include "tk/status.h"

/// How the kernel is asked, and how its answer ends.
/// Errors: the code of a failure is an errno value or `unanswered`.
namespace netlink {

/// The answer was lost or never came: the request may have been carried out. No errno value.
constexpr std::uint32_t unanswered = 1U << 16;

/// How long to wait for an answer. The kernel answers at once: these bound what should not happen.
/// Units: milliseconds.
constexpr int answerMilliseconds = 5000;
constexpr int transactionMilliseconds = 10000;  // a large one takes some time

/// Sends a request and calls `visit` with each message of its answer, up to the acknowledgement. The
/// request's sequence number and its flags for an acknowledgement are set here.
tk::Status request(Socket& socket, nlmsghdr& message, const Visitor& visit = ignore);

/// Asks for a whole list, and again while it changes during the dump. `begin` is called before each attempt.
/// Errors: EINTR when it never stops changing.
tk::Status dump(Socket& socket, nlmsghdr& message, const std::function<void()>& begin, const Visitor& visit);

/// Sends messages, with sequence numbers from `first` to `last`, that the kernel applies all or not at all.
/// Only the last one asks for an acknowledgement.
/// Errors: the first one that the kernel reports.
tk::Status transact(Socket& socket, std::span<const char> messages, std::uint32_t first, std::uint32_t last);

/// The answer to a request, a dump or a transaction, as it comes in. For callers that cannot wait for its
/// end.
class Answer {
public:
    /// The answer to nothing: it is complete.
    Answer() = default;
    /// The answer to the messages with sequence numbers from `first` to `last`.
    Answer(std::uint32_t first, std::uint32_t last);

    /// Takes one datagram from the socket, whereupon the kernel makes the next one. Calls `visit` with each
    /// message of the answer except its end. After a loss it no longer waits.
    /// Units: milliseconds.
    /// Errors: false when no datagram came.
    [[nodiscard]] bool receive(Socket& socket, int milliseconds, const Visitor& visit);
    /// Receives until the end, and waits at most `milliseconds` for each datagram.
    void complete(Socket& socket, int milliseconds, const Visitor& visit);
    /// Ends the answer, as the request could not be sent.
    void fail(tk::Status why);

    /// True when nothing more is to come.
    bool isComplete() const { return !isExpected; }
    /// True when the list changed while it was dumped: some of it may be missing.
    bool isInterrupted() const { return sawInterruption; }
    /// True when a part of it was lost, or the kernel says that it is incomplete: ask again.
    bool isPartial() const;
    /// How the answer ended.
    tk::Status outcome() const;

private:
    void take(const nlmsghdr& message, const Visitor& visit);
    void lose(int error);

    std::uint32_t first = 0;
    std::uint32_t last = 0;
    bool isExpected = false;
    bool sawInterruption = false;
    int lossError = 0;   // an errno value; 0: nothing was lost
    tk::Status refusal;  // the first one
};

/// The outcome in an error message or an acknowledgement, with the kernel's own words if it gave any.
tk::Status outcomeOf(const nlmsghdr& message);

}  // namespace netlink
