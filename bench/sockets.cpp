#include "bench/sockets.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "bench/arguments.h"

namespace bench {

namespace {

constexpr std::size_t readSize = 65536;

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

tk::Fd boundTo(int type, std::uint16_t port) {
    tk::Fd socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_port = htons(port);
    if (!socket.isOpen() || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(socket.get(), generic(own), sizeof own) != 0)
        fail("bind");
    return socket;
}

}  // namespace

tk::Fd listenOn(std::uint16_t port, int backlog) {
    tk::Fd socket = boundTo(SOCK_STREAM, port);
    if (::listen(socket.get(), backlog) != 0) fail("listen");
    return socket;
}

tk::Fd datagramsOn(std::uint16_t port) {
    return boundTo(SOCK_DGRAM, port);
}

tk::Fd connectTo(const sockaddr_in& to) {
    tk::Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen() || ::connect(socket.get(), generic(to), sizeof to) != 0) fail("connect");
    return socket;
}

void limitWaiting(const tk::Fd& socket, int milliseconds) {
    const timeval time{milliseconds / 1000, milliseconds % 1000 * 1000L};
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time) != 0) fail("SO_RCVTIMEO");
}

void writeAll(const tk::Fd& socket, const std::string& bytes) {
    const ssize_t written = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written < 0 || static_cast<std::size_t>(written) != bytes.size()) fail("write");
}

std::string readToEnd(const tk::Fd& socket) {
    std::string all;
    char bytes[readSize];
    for (;;) {
        const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, 0);
        if (length < 0) fail("read");
        if (length == 0) return all;
        all.append(bytes, static_cast<std::size_t>(length));
    }
}

}  // namespace bench
