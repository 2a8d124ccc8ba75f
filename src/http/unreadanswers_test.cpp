#include "http/unreadanswers.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "http/testing/serverfixture.h"

namespace gateway {

namespace {

constexpr const char* request = "GET /gateway.xml HTTP/1.1\r\n\r\n";

/// Asks again and again, for five seconds at most: an acknowledgement takes the kernel a moment.
template <typename Condition>
bool comesTrue(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        ::usleep(1000);
    }
    return true;
}

class Unread : public Server {
protected:
    Unread() { host.description.assign(std::size_t{2} * 1024 * 1024, 'x'); }

    /// Asks for the description, and reads nothing of it.
    std::unique_ptr<Client> ask() {
        auto client = std::make_unique<Client>(port);
        client->send(request);
        loop.settle();
        return client;
    }
    /// Answers as much as may be answered freely.
    void useUp() {
        const std::size_t share = 5 * host.description.size() / 2 + 8192;
        for (std::size_t used = share; used < UnreadAnswers::freely; used += share) reading.push_back(ask());
        EXPECT_EQ(kept(), 0u);
    }
    std::size_t kept() const { return server.unreadAnswers().count(); }
    /// Reads until nothing comes. Returns how much came, and how it ended: 0 for a proper end, else errno.
    static std::pair<std::size_t, int> readAll(const tk::Fd& socket) {
        std::vector<char> bytes(std::size_t{1} << 20);
        for (std::size_t all = 0;;) {
            const ssize_t count = ::recv(socket.get(), bytes.data(), bytes.size(), 0);
            if (count <= 0) return {all, count == 0 ? 0 : errno};
            all += static_cast<std::size_t>(count);
        }
    }

    std::vector<std::unique_ptr<Client>> reading;
};

TEST_F(Unread, LittleIsLeftToTheKernelAtOnce) {
    const auto client = ask();
    EXPECT_EQ(kept(), 0u);
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_GT(readAll(client->socket).first, host.description.size());
}

TEST_F(Unread, BeyondThatASocketIsKeptUntilItsClientHasTakenAll) {
    useUp();
    const auto client = ask();
    EXPECT_EQ(kept(), 1u);
    EXPECT_FALSE(server.hasConnections(host.device));
    loop.advance(10);
    EXPECT_EQ(kept(), 1u);
    const auto [length, end] = readAll(client->socket);
    EXPECT_GT(length, host.description.size());
    EXPECT_EQ(end, 0);
    EXPECT_TRUE(comesTrue([this] {
        loop.advance(10);
        return kept() == 0;
    }));
    EXPECT_EQ(log(), "");
}

/// A connection over the loopback, whose other end reads little at once.
struct Pair {
    Pair() {
        const tk::Fd listener(::socket(AF_INET, SOCK_STREAM, 0));
        const int small = 1;
        EXPECT_EQ(::setsockopt(peer.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        EXPECT_EQ(::connect(peer.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        own.reset(::accept(listener.get(), nullptr, nullptr));
        const std::string text(10000, 'x');  // more than the other end takes
        EXPECT_EQ(::send(own.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    tk::Fd peer{::socket(AF_INET, SOCK_STREAM, 0)};
    tk::Fd own;
};

TEST_F(Unread, ASocketMayBeClosedAlsoThenWhenItsClientHasTakenAll) {
    UnreadAnswers answers;
    const Pair pair;
    EXPECT_FALSE(answers.mayClose(pair.own.get(), UnreadAnswers::freely));
    std::string text(10000, ' ');
    EXPECT_EQ(::recv(pair.peer.get(), text.data(), text.size(), MSG_WAITALL), 10000);
    EXPECT_TRUE(comesTrue([&] { return answers.mayClose(pair.own.get(), 0); }));
}

TEST_F(Unread, ASocketMayBeClosedAlsoThenWhenItsClientIsGone) {
    UnreadAnswers answers;
    Pair pair;
    pair.peer.reset();  // a reset, as it has not read all
    EXPECT_TRUE(answers.mayClose(pair.own.get(), UnreadAnswers::freely));
}

TEST_F(Unread, WhatIsNotTakenWithin10SecondsIsDropped) {
    useUp();
    const auto client = ask();
    loop.advance(1000);
    EXPECT_EQ(kept(), 0u);
    EXPECT_EQ(readAll(client->socket).second, ECONNRESET);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(Unread, AtTheLimitTheOldestIsDropped) {
    UnreadAnswers answers;
    std::vector<tk::Fd> peers;
    for (std::size_t i = 0; i <= UnreadAnswers::keptLimit; ++i) {
        Pair pair;
        EXPECT_FALSE(answers.mayClose(pair.own.get(), UnreadAnswers::freely));
        answers.keep(std::move(pair.own));
        peers.push_back(std::move(pair.peer));
    }
    EXPECT_EQ(answers.count(), UnreadAnswers::keptLimit);
    EXPECT_EQ(readAll(peers[0]).second, ECONNRESET);
    EXPECT_EQ(readAll(peers[1]), std::pair(std::size_t{10000}, 0));
    EXPECT_EQ(readAll(peers.back()), std::pair(std::size_t{10000}, 0));
}

TEST_F(Unread, AfterAWhileAnswersAreLeftToTheKernelAgain) {
    useUp();
    loop.advance(1000);
    const auto client = ask();
    EXPECT_EQ(kept(), 0u);
}

}  // namespace

}  // namespace gateway
