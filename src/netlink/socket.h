#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tk/fd.h"

namespace router {

/// How a request to the kernel ended.
struct NetlinkResult {
    int error = 0;     // an errno value, 0 when the kernel agreed
    std::string text;  // why not, for people: the system's text, and the kernel's own where it gave one
    bool interrupted = false;  // the list changed while it was dumped
    bool unanswered = false;   // the answer was lost: what was asked for may have been done

    bool ok() const { return error == 0; }
};

/// A socket to the kernel. Takes datagrams only from the kernel itself (port 0), at their full size.
class NetlinkSocket {
public:
    using Visitor = std::function<void(const nlmsghdr&)>;

    /// What receive() found.
    enum class Received : std::uint8_t { datagram, nothing, lost, failed };

    /// Opens a socket of a netlink family, which joins the given groups (a mask).
    /// Errors: false, with errno set.
    [[nodiscard]] bool open(int family, std::uint32_t groups = 0);
    void close() { socket.reset(); }

    int descriptor() const { return socket.get(); }
    bool isOpen() const { return socket.isOpen(); }
    /// Sequence numbers begin at 1: notifications carry 0.
    std::uint32_t nextSequence() { return ++sequence; }
    /// Sets the socket's buffers, as large as the system allows at most. Units: bytes.
    void setBuffers(int send, int receive);

    /// Sends a request and calls `visit` with each message of its answer, up to the acknowledgement or the
    /// end of the dump. The request's sequence number and the flag for an acknowledgement are set here.
    [[nodiscard]] NetlinkResult exchange(nlmsghdr& request, const Visitor& visit);
    /// A dump, repeated while it is interrupted. `begin` is called before each attempt.
    [[nodiscard]] NetlinkResult dump(nlmsghdr& request, const std::function<void()>& begin,
                                     const Visitor& visit);

    /// Sends bytes that hold one or more messages. Errors: false, with errno set.
    [[nodiscard]] bool send(const void* bytes, std::size_t size);
    /// Waits, at most `milliseconds`, for one datagram, and calls `visit` for each of its messages.
    /// `lost` says that the kernel had no room for some notification.
    [[nodiscard]] Received receive(int milliseconds, const Visitor& visit);

private:
    [[nodiscard]] Received read();

    tk::Fd socket;
    std::uint32_t sequence = 0;
    std::vector<char> buffer;
    std::size_t filled = 0;
};

/// The result that an error or acknowledgement message carries.
[[nodiscard]] NetlinkResult netlinkResultOf(const nlmsghdr& message);
/// The result of a system call that failed with errno.
[[nodiscard]] NetlinkResult netlinkFailure(int error);

}  // namespace router
