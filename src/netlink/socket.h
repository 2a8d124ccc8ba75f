#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "tk/fd.h"
#include "tk/status.h"

namespace netlink {

/// Is called with one message from the kernel.
using Visitor = std::function<void(const nlmsghdr&)>;
/// Where it does not matter what the kernel says.
inline void ignore(const nlmsghdr&) {}

/// A socket to the kernel. Takes datagrams only from the kernel itself (port 0), at their full size.
class Socket {
public:
    /// What receive() found: `lost` when the kernel had no room for something, `failed` with errno set.
    enum class Received : std::uint8_t { datagram, nothing, lost, failed };

    /// Opens a socket of a netlink family, which joins the given groups (a mask).
    /// Errors: the code is an errno value.
    tk::Status open(int family, std::uint32_t groups = 0);
    /// Leaves its groups, and what it owns.
    void close() { socket.reset(); }

    // The descriptor that becomes readable, and whether there is one.
    int descriptor() const { return socket.get(); }
    bool isOpen() const { return socket.isOpen(); }
    /// Sequence numbers begin at 1: notifications carry 0.
    std::uint32_t nextSequence() { return ++sequence; }
    /// Sets the socket's buffers, as large as the system allows at most.
    /// Units: bytes.
    void setBuffers(int send, int receive);

    /// Sends bytes that hold one or more messages.
    /// Errors: the code is an errno value.
    tk::Status send(const void* bytes, std::size_t size);
    /// Waits, at most `milliseconds`, for one datagram, and calls `visit` for each of its messages.
    [[nodiscard]] Received receive(int milliseconds, const Visitor& visit);

private:
    [[nodiscard]] Received read();

    tk::Fd socket;
    std::uint32_t sequence = 0;
    std::vector<char> buffer;
    std::size_t filled = 0;
};

/// What a failure with this errno value is called.
tk::Status failure(int error);

}  // namespace netlink
