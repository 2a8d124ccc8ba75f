// Apart from the rest, which needs no test library: where that cannot be linked, a loop can still be had.

#include "tk/testing/testloop.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "tk/fd.h"

namespace tk::testing {

std::string TestLoop::exchangeOverTcp(std::uint16_t port, const std::string& request) {
    const Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::send(socket.get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    settle();
    char bytes[65536];
    const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

}  // namespace tk::testing
