#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "tk/fd.h"

namespace gateway {

/// A subscriber on the loopback address: accepts connections one at a time.
class Subscriber {
public:
    /// Units: `queue` is the backlog of its listener.
    explicit Subscriber(int queue = 8) : listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in any = loopback(0);
        socklen_t size = sizeof any;
        EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&any), size), 0);
        EXPECT_EQ(::listen(listener.get(), queue), 0);
        EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&any), &size), 0);
        port = ntohs(any.sin_port);
    }

    /// The loopback address with a port in host order.
    static sockaddr_in loopback(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    /// Accepts a connection that is there already.
    /// Errors: the result holds no descriptor.
    tk::Fd acceptNow() const {
        pollfd target{listener.get(), POLLIN, 0};
        return tk::Fd(::poll(&target, 1, 0) == 1 ? ::accept(listener.get(), nullptr, nullptr) : -1);
    }
    /// Accepts one connection.
    /// Errors: the result holds no descriptor.
    tk::Fd accept() const {
        await(listener);
        return tk::Fd(::accept(listener.get(), nullptr, nullptr));
    }

    /// Waits until something can be read, for five seconds at most.
    static void await(const tk::Fd& socket) {
        pollfd target{socket.get(), POLLIN, 0};
        EXPECT_EQ(::poll(&target, 1, 5000), 1);
    }

    /// What one read of a connection returns.
    static std::string received(const tk::Fd& connection) {
        char bytes[65536];
        await(connection);
        const ssize_t length = ::recv(connection.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : std::string();
    }

    /// Refuses connections from now on.
    void close() { listener.reset(); }

    std::uint16_t port = 0;  // host order

private:
    tk::Fd listener;
};

}  // namespace gateway
