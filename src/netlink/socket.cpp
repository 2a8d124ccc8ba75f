#include "netlink/socket.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <poll.h>
#include <sys/socket.h>

namespace netlink {

namespace {

/// True when a whole message begins there. The library reads a length of 2 GiB and more as a negative one, which
/// fits everywhere.
bool isWhole(const nlmsghdr& message, int left) {
    return mnl_nlmsg_ok(&message, left) && message.nlmsg_len <= static_cast<std::uint32_t>(left);
}

}  // namespace

tk::Status Socket::open(int family, std::uint32_t groups) {
    socket.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, family));
    if (!socket.isOpen()) return tk::Status::ofErrno(errno);
    // Only the pages that datagrams reach are ever used.
    if (!buffer) buffer = std::make_unique_for_overwrite<char[]>(datagramLimit);
    const int on = 1;
    // Better error texts, where the kernel knows the option.
    (void)::setsockopt(socket.get(), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return {};
    tk::Status refused = tk::Status::ofErrno(errno);
    socket.reset();
    return refused;
}

tk::Status Socket::join(std::uint32_t groups) {
    sockaddr_nl address{};
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::getsockname(socket.get(), generic, &length) != 0) return tk::Status::ofErrno(errno);
    address.nl_groups |= groups;  // the kernel leaves out those that it does not know
    return ::bind(socket.get(), generic, sizeof address) == 0 ? tk::Status() : tk::Status::ofErrno(errno);
}

void Socket::setBuffers(int sendSize, int receiveSize) {
    const auto set = [this](int force, int option, int size) {
        if (::setsockopt(socket.get(), SOL_SOCKET, force, &size, sizeof size) == 0) return;
        // In a container: as much as the system allows everybody, or the default.
        (void)::setsockopt(socket.get(), SOL_SOCKET, option, &size, sizeof size);
    };
    set(SO_SNDBUFFORCE, SO_SNDBUF, sendSize);
    set(SO_RCVBUFFORCE, SO_RCVBUF, receiveSize);
}

tk::Status Socket::send(const void* bytes, std::size_t size) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent =
        ::sendto(socket.get(), bytes, size, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    return sent < 0 ? tk::Status::ofErrno(errno) : tk::Status();
}

tk::Result<Socket::Received> Socket::read() {
    sockaddr_nl from{};
    socklen_t length = sizeof from;
    const ssize_t size = ::recvfrom(socket.get(), buffer.get(), datagramLimit, MSG_TRUNC | MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&from), &length);
    if (size < 0) {
        if (errno == EAGAIN || errno == EINTR) return Received::nothing;
        if (errno == ENOBUFS) return Received::lost;
        return tk::Status::ofErrno(errno);
    }
    const bool isKernel = from.nl_pid == 0;  // others may send, too
    filled = isKernel ? static_cast<std::size_t>(size) : 0;
    return filled > datagramLimit ? Received::lost : Received::datagram;
}

tk::Result<Socket::Received> Socket::receive(int milliseconds, const Visitor& visit) {
    // The kernel answers most requests before they are sent, so there is mostly nothing to wait for.
    tk::Result<Received> result = read();
    pollfd waiting{socket.get(), POLLIN, 0};
    if (milliseconds != 0 && result.isOk() && *result == Received::nothing &&
        ::poll(&waiting, 1, milliseconds) != 0)
        result = read();
    if (!result.isOk() || *result != Received::datagram) return result;
    auto left = static_cast<int>(filled);
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.get());
    while (isWhole(*message, left)) {
        visit(*message);
        message = mnl_nlmsg_next(message, &left);
    }
    return result;
}

}  // namespace netlink
