#include "nat/listeners.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

#include "netlink/request.h"
#include "tk/fd.h"

namespace nat {

namespace {

constexpr const char* loopback = "lo";

/// Binds a socket of our own to loopback, and returns its port; 0 when that fails.
std::uint16_t listen(const tk::Fd& socket, bool isTcp) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, loopback, sizeof "lo") != 0 ||
        ::bind(socket.get(), generic, length) != 0 || (isTcp && ::listen(socket.get(), 1) != 0) ||
        ::getsockname(socket.get(), generic, &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

/// True when a socket has the UDP port but the look-up does not show it, because the socket is connected to a
/// peer, as tunnels' sockets are.
/// Errors: false when that cannot be tried.
bool isBound(const NatKey& key, std::uint32_t interface) {
    const tk::Fd attempt(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int index = static_cast<int>(interface);
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    wanted.sin_addr.s_addr = key.destination;
    wanted.sin_port = htons(key.port);
    return key.port != 0 && attempt.isOpen() &&
           ::setsockopt(attempt.get(), SOL_SOCKET, SO_BINDTOIFINDEX, &index, sizeof index) == 0 &&
           ::bind(attempt.get(), reinterpret_cast<const sockaddr*>(&wanted), sizeof wanted) != 0 &&
           errno == EADDRINUSE;
}

}  // namespace

tk::Status SocketListeners::open() {
    tk::Status status = socket.open(NETLINK_SOCK_DIAG);
    if (!status.isOk()) return status.prefixed("sock_diag: this kernel lacks it (Linux 3.3): ");
    status = findsOwn(IPPROTO_TCP);
    return status.isOk() ? findsOwn(IPPROTO_UDP) : status;
}

/// A kernel without such look-ups answers as if there were no socket.
tk::Status SocketListeners::findsOwn(std::uint8_t protocol) {
    const bool isTcp = protocol == IPPROTO_TCP;
    const tk::Fd own(::socket(AF_INET, (isTcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, protocol));
    const std::uint16_t port = own.isOpen() ? listen(own, isTcp) : std::uint16_t{0};
    if (port == 0) return tk::Status::ofErrno("sock_diag cannot be tried", errno);
    const NatKey key{htonl(INADDR_LOOPBACK), protocol, port};
    const tk::Result<bool> found = isTaken(key, ::if_nametoindex(loopback));
    if (found.isOk() && *found) return {};
    const char* module = isTcp ? "tcp_diag" : "udp_diag";
    return tk::Status::failure(std::string("sock_diag: this kernel lacks ") + module + " (Linux 3.3)");
}

tk::Result<bool> SocketListeners::isTaken(const NatKey& key, std::uint32_t interface) {
    std::array<char, 256> buffer{};
    nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    auto* wanted =
        static_cast<inet_diag_req_v2*>(mnl_nlmsg_put_extra_header(message, sizeof(inet_diag_req_v2)));
    wanted->sdiag_family = AF_INET;
    wanted->sdiag_protocol = key.protocol;
    // The packet has no particular source. For UDP the kernel reads the two ends as the packet's, for TCP as
    // the socket's.
    const bool isTcp = key.protocol == IPPROTO_TCP;
    (isTcp ? wanted->id.idiag_src[0] : wanted->id.idiag_dst[0]) = key.destination;
    (isTcp ? wanted->id.idiag_sport : wanted->id.idiag_dport) = htons(key.port);
    wanted->id.idiag_if = interface;
    wanted->id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    wanted->id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    bool isFound = false;
    const tk::Status result = netlink::request(socket, *message, [&](const nlmsghdr& answer) {
        isFound = isFound || answer.nlmsg_type == SOCK_DIAG_BY_FAMILY;
    });
    if (isFound || (!isTcp && isBound(key, interface))) return true;
    if (result.code() == ENOENT) return false;
    return result.isOk() ? tk::Status::failure("the kernel gave no answer") : result;
}

}  // namespace nat
