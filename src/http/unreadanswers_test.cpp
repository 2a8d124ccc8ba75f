#include "http/unreadanswers.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/testing/serverfixture.h"

namespace gateway {

namespace {

constexpr const char* request = "GET /gateway.xml HTTP/1.1\r\n\r\n";

class Unread : public Server {
protected:
    Unread() {
        host.description.assign(std::size_t{4} * 1024 * 1024, 'x');
    }  // more than two sockets take at once

    /// Asks for the description, and reads nothing of it.
    std::unique_ptr<Client> ask() {
        auto client = std::make_unique<Client>(port);
        client->send(request);
        loop.settle();
        return client;
    }
    /// Answers as much as may be answered freely.
    void useUp() {
        const std::size_t share = 2 * host.description.size();
        for (std::size_t used = share; used < UnreadAnswers::freely; used += share) reading.push_back(ask());
        EXPECT_EQ(kept(), 0u);
    }
    std::size_t kept() const { return server.unreadAnswers().count(); }
    /// Reads until nothing comes. Returns how much came, and how it ended: 0 for a proper end, else errno.
    static std::pair<std::size_t, int> readAll(const Client& client) {
        std::vector<char> bytes(std::size_t{1} << 20);
        for (std::size_t all = 0;;) {
            const ssize_t count = ::recv(client.socket.get(), bytes.data(), bytes.size(), 0);
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
    EXPECT_GT(readAll(*client).first, host.description.size());
}

TEST_F(Unread, BeyondThatASocketIsKeptUntilItsClientHasTakenAll) {
    useUp();
    const auto client = ask();
    EXPECT_EQ(kept(), 1u);
    EXPECT_FALSE(server.hasConnections(host.device));
    loop.advance(10);
    EXPECT_EQ(kept(), 1u);
    const auto [length, end] = readAll(*client);
    EXPECT_GT(length, host.description.size());
    EXPECT_EQ(end, 0);
    loop.advance(10);
    EXPECT_EQ(kept(), 0u);
    EXPECT_EQ(log(), "");
}

TEST_F(Unread, ASocketWhoseClientHasTakenAllMayBeClosedAlsoThen) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const tk::Fd own(ends[0]), peer(ends[1]);
    UnreadAnswers answers;
    ASSERT_EQ(::send(own.get(), "x", 1, 0), 1);
    EXPECT_FALSE(answers.mayClose(own.get(), UnreadAnswers::freely));
    char byte = 0;
    ASSERT_EQ(::recv(peer.get(), &byte, 1, 0), 1);
    EXPECT_TRUE(answers.mayClose(own.get(), UnreadAnswers::freely));
}

TEST_F(Unread, WhatIsNotTakenWithin10SecondsIsDropped) {
    useUp();
    const auto client = ask();
    loop.advance(1000);
    EXPECT_EQ(kept(), 0u);
    EXPECT_EQ(readAll(*client).second, ECONNRESET);
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
}

TEST_F(Unread, AtTheLimitTheOldestIsDropped) {
    UnreadAnswers full;
    std::vector<tk::Fd> peers;
    for (std::size_t i = 0; i <= UnreadAnswers::keptLimit; ++i) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        tk::Fd own(ends[0]);
        peers.emplace_back(ends[1]);
        ASSERT_EQ(::send(own.get(), "x", 1, 0), 1);
        EXPECT_FALSE(full.mayClose(own.get(), UnreadAnswers::freely));
        full.keep(std::move(own));
    }
    EXPECT_EQ(full.count(), UnreadAnswers::keptLimit);
    const auto isClosed = [](const tk::Fd& peer) { return ::send(peer.get(), "x", 1, MSG_NOSIGNAL) < 0; };
    EXPECT_TRUE(isClosed(peers[0]));
    EXPECT_FALSE(isClosed(peers[1]));
    EXPECT_FALSE(isClosed(peers.back()));
}

TEST_F(Unread, AfterAWhileAnswersAreLeftToTheKernelAgain) {
    useUp();
    loop.advance(1000);
    const auto client = ask();
    EXPECT_EQ(kept(), 0u);
}

}  // namespace

}  // namespace gateway
