#include "tk/testing/testloop.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include <gtest/gtest.h>

namespace tk::testing {

void TestLoop::advance(std::uint32_t ticks) {
    std::uint64_t left = std::uint64_t{ticks} * tickMilliseconds;
    for (;;) {
        const int next = looper.runner().untilNextTimer();
        const std::uint64_t step =
            next < 0 ? left : std::min<std::uint64_t>(left, static_cast<std::uint64_t>(next));
        clock.advance(step);
        left -= step;
        const bool due = looper.runner().untilNextTimer() == 0;
        looper.turn(0);
        if (left == 0 && !due) return;
    }
}

void TestLoop::settle(int limit) {
    for (int i = 0; i < limit; ++i) {
        looper.turn(0);
        for (; !bus.ends.empty(); bus.ends.pop_front()) looper.dispatch(message(bus.ends.front()));
    }
}

void TestLoop::end(std::uint32_t number, message content) {
    const Kind kind = isError(content) ? Kind::error : Kind::reply;
    stamp(content, {program::hub}, number, kind, 0);
    looper.dispatch(content);
}

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

void TestLoop::notify(const Path& from, std::uint32_t command, message content) {
    stamp(content, from, 0, Kind::notification, command);
    looper.dispatch(content);
}

message TestLoop::request(std::uint32_t command, message content) {
    content.insert_u32_array(field::destination, {ownProgram, 0});
    stamp(content, {program::firstClient}, 1, Kind::request, command);
    looper.dispatch(content);
    return bus.posted.empty() ? message() : withoutRouting(bus.posted.back());
}

}  // namespace tk::testing
