#include "netlink/socket.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <utility>

namespace router {

namespace {

constexpr int answerMilliseconds = 5000;  // the kernel answers at once; a bound for what cannot happen
constexpr int dumpAttempts = 20;

/// The kernel's own words in an error message, empty where it has none.
std::string kernelText(const nlmsghdr& message, const nlmsgerr& error) {
    if ((message.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return {};
    std::size_t offset = sizeof error;
    if ((message.nlmsg_flags & NLM_F_CAPPED) == 0) offset += mnl_nlmsg_get_payload_len(&error.msg);
    const char* tail = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    const auto* attribute = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, offset));
    while (mnl_attr_ok(attribute, static_cast<int>(tail - reinterpret_cast<const char*>(attribute)))) {
        if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG &&
            mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0)
            return mnl_attr_get_str(attribute);
        attribute = mnl_attr_next(attribute);
    }
    return {};
}

/// What a finished dump says of itself: a negative errno value in newer kernels, nothing in older ones.
NetlinkResult resultOfDone(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(int)) return {};
    const int status = *static_cast<const int*>(mnl_nlmsg_get_payload(&message));
    return status < 0 ? netlinkFailure(-status) : NetlinkResult{};
}

}  // namespace

NetlinkResult netlinkFailure(int error) {
    return {error, ::strerror(error), false};
}

NetlinkResult netlinkResultOf(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr)) return netlinkFailure(EBADMSG);
    const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
    if (error->error == 0) return {};
    NetlinkResult result = netlinkFailure(error->error < 0 ? -error->error : error->error);
    if (const std::string text = kernelText(message, *error); !text.empty()) result.text += " (" + text + ")";
    return result;
}

bool NetlinkSocket::open(int family, std::uint32_t groups) {
    socket.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, family));
    if (!socket.isOpen()) return false;
    const int on = 1;
    (void)::setsockopt(socket.get(), SOL_NETLINK, NETLINK_EXT_ACK, &on,
                       sizeof on);  // better texts, where it is known
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
    const int error = errno;
    socket.reset();
    errno = error;
    return false;
}

void NetlinkSocket::setBuffers(int sendSize, int receiveSize) {
    const auto set = [this](int force, int option, int size) {
        if (::setsockopt(socket.get(), SOL_SOCKET, force, &size, sizeof size) == 0) return;
        // In a container: as much as the system allows to anybody, or the default.
        (void)::setsockopt(socket.get(), SOL_SOCKET, option, &size, sizeof size);
    };
    set(SO_SNDBUFFORCE, SO_SNDBUF, sendSize);
    set(SO_RCVBUFFORCE, SO_RCVBUF, receiveSize);
}

bool NetlinkSocket::send(const void* bytes, std::size_t size) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent =
        ::sendto(socket.get(), bytes, size, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    return sent == static_cast<ssize_t>(size);
}

NetlinkSocket::Received NetlinkSocket::read() {
    const ssize_t size = ::recv(socket.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0) {
        if (errno == EAGAIN || errno == EINTR) return Received::nothing;
        return errno == ENOBUFS ? Received::lost : Received::failed;
    }
    buffer.resize(static_cast<std::size_t>(size));
    sockaddr_nl from{};
    socklen_t length = sizeof from;
    const ssize_t count = ::recvfrom(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) return errno == ENOBUFS ? Received::lost : Received::nothing;
    filled = from.nl_pid == 0 ? static_cast<std::size_t>(count) : 0;  // another process is not the kernel
    return Received::datagram;
}

NetlinkSocket::Received NetlinkSocket::receive(int milliseconds, const Visitor& visit) {
    pollfd waiting{socket.get(), POLLIN, 0};
    if (::poll(&waiting, 1, milliseconds) == 0) return Received::nothing;
    const Received result = read();
    if (result != Received::datagram) return result;
    auto left = static_cast<int>(filled);
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
    while (mnl_nlmsg_ok(message, left)) {
        visit(*message);
        message = mnl_nlmsg_next(message, &left);
    }
    return result;
}

NetlinkResult NetlinkSocket::exchange(nlmsghdr& request, const Visitor& visit) {
    request.nlmsg_seq = nextSequence();
    request.nlmsg_flags = static_cast<std::uint16_t>(request.nlmsg_flags | NLM_F_REQUEST | NLM_F_ACK);
    if (!send(&request, request.nlmsg_len)) return netlinkFailure(errno);
    NetlinkResult result;
    bool interrupted = false;
    bool finished = false;
    const auto take = [&](const nlmsghdr& message) {
        if (finished || message.nlmsg_seq != request.nlmsg_seq) return;
        interrupted = interrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        finished = message.nlmsg_type == NLMSG_ERROR || message.nlmsg_type == NLMSG_DONE;
        if (!finished) return visit(message);
        result = message.nlmsg_type == NLMSG_ERROR ? netlinkResultOf(message) : resultOfDone(message);
    };
    while (!finished) switch (receive(answerMilliseconds, take)) {
            case Received::datagram:
                break;
            case Received::nothing:
                return netlinkFailure(ETIMEDOUT);
            case Received::lost:
                return netlinkFailure(ENOBUFS);
            case Received::failed:
                return netlinkFailure(errno);
        }
    result.interrupted = interrupted;
    return result;
}

NetlinkResult NetlinkSocket::dump(nlmsghdr& request, const std::function<void()>& begin,
                                  const Visitor& visit) {
    request.nlmsg_flags = static_cast<std::uint16_t>(request.nlmsg_flags | NLM_F_DUMP);
    NetlinkResult result;
    for (int attempt = 0; attempt < dumpAttempts; ++attempt) {
        begin();
        result = exchange(request, visit);
        const bool repeat = result.interrupted || result.error == EINTR || result.error == ENOBUFS;
        if (!repeat) return result;
    }
    return result.ok() ? netlinkFailure(EINTR) : result;
}

}  // namespace router
