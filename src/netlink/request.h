#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <span>

#include "netlink/socket.h"
#include "tk/status.h"

/// How the kernel is asked, and how its answer ends. The codes of failures are errno values, but for one:
namespace netlink {

/// The code where the answer was lost or never came: what was asked for may have been done. No errno value.
constexpr std::uint32_t unanswered = 1U << 16;

/// How long an answer is awaited. The kernel gives it at once: these bound what cannot happen.
/// Units: milliseconds.
constexpr int answerMilliseconds = 5000;
constexpr int transactionMilliseconds = 10000;  // a large one takes the kernel some time

/// Sends a request and calls `visit` with each message of its answer, up to the acknowledgement. The
/// request's sequence number and its flags for an acknowledgement are set here.
tk::Status request(Socket& socket, nlmsghdr& message, const Visitor& visit = ignore);

/// Asks for a whole list, again while it changes under the kernel's hands. `begin` is called before each
/// attempt.
/// Errors: EINTR when it never stops changing.
tk::Status dump(Socket& socket, nlmsghdr& message, const std::function<void()>& begin, const Visitor& visit);

/// Sends messages, with sequence numbers from `first` to `last`, that the kernel takes all or not at all. Of
/// them the last one asks for an acknowledgement.
/// Errors: the kernel's first one.
tk::Status transact(Socket& socket, std::span<const char> messages, std::uint32_t first, std::uint32_t last);

/// The answer to a request, a dump or a transaction, as it comes in. For those who cannot wait for its end.
class Answer {
public:
    /// To nothing: it is complete.
    Answer() = default;
    /// To the messages with sequence numbers from `first` to `last`.
    Answer(std::uint32_t first, std::uint32_t last);

    /// Takes one datagram from the socket, for which the kernel makes the next one, and calls `visit` with
    /// what belongs to the answer and does not end it. After a loss it waits for nothing any more.
    /// Errors: false when none came.
    [[nodiscard]] bool receive(Socket& socket, int milliseconds, const Visitor& visit);
    /// Receives up to the end, and waits at most so long for each datagram.
    void complete(Socket& socket, int milliseconds, const Visitor& visit);
    /// Ends it: the request could not be sent.
    void fail(tk::Status why);

    /// True when nothing more is to come.
    bool isComplete() const { return !isExpected; }
    /// True when the list changed while it was dumped: some of it may be missing.
    bool isInterrupted() const { return sawInterruption; }
    /// True when a part of it was lost, or the kernel says that it could not tell all: ask again.
    bool isPartial() const;
    /// How it ended.
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

/// What an error message or an acknowledgement says, with the kernel's own words where it gave some.
tk::Status outcomeOf(const nlmsghdr& message);

}  // namespace netlink
