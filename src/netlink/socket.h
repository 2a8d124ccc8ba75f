#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "tk/fd.h"
#include "tk/status.h"

namespace netlink {

/// Called with one message from the kernel.
using Visitor = std::function<void(const nlmsghdr&)>;
/// For callers that do not care what the kernel says.
inline void ignore(const nlmsghdr&) {}

/// A socket to the kernel. Takes datagrams only from the kernel itself (port 0), at their full size.
class Socket {
public:
    /// The size of the largest datagram that is taken. No list is told in larger ones than 32 KiB, no attribute
    /// has more than 64 KiB, and an error repeats at most one message of ours.
    /// Units: bytes.
    static constexpr std::size_t datagramLimit = std::size_t{256} * 1024;

    /// What receive() found. `lost`: there was no room for a message, in the kernel or here.
    enum class Received : std::uint8_t { datagram, nothing, lost };

    /// Opens a socket of a netlink family, and joins the given groups (a mask).
    /// Errors: the code is an errno value.
    tk::Status open(int family, std::uint32_t groups = 0);
    /// Joins further groups (a mask) on an open socket.
    /// Errors: the code is an errno value.
    tk::Status join(std::uint32_t groups);
    /// Leaves the groups, and gives up what the socket owns in the kernel.
    void close() { socket.reset(); }

    /// The descriptor that becomes readable; -1 when there is none.
    int descriptor() const { return socket.get(); }
    /// True when the socket is open.
    bool isOpen() const { return socket.isOpen(); }
    /// The next sequence number. They begin at 1, as notifications carry 0.
    std::uint32_t nextSequence() { return ++sequence; }
    /// Sets the sizes of the socket's buffers, at most what the system allows.
    /// Units: bytes.
    void setBuffers(int send, int receive);

    /// Sends bytes that hold one or more messages.
    /// Errors: the code is an errno value.
    tk::Status send(const void* bytes, std::size_t size);
    /// Waits at most `milliseconds` for one datagram, and calls `visit` for each of its messages.
    /// Errors: the code is an errno value.
    tk::Result<Received> receive(int milliseconds, const Visitor& visit);

private:
    tk::Result<Received> read();

    tk::Fd socket;
    std::uint32_t sequence = 0;
    std::unique_ptr<char[]> buffer;
    std::size_t filled = 0;
};

}  // namespace netlink
