// Connections to the hub: their numbers, and how many there may be.

#include "hub/peers.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "hub/hub.h"
#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::codeOf;
using testing::TestClient;

constexpr std::uint32_t command = 77;

class ClientNumberTest : public ::testing::Test {
protected:
    /// The number that the next connection gets.
    std::uint32_t next() {
        clients.push_back(bus.connect());
        return bus.ask(*clients.back(), {33}, command).get_u32_array(tk::field::destination).front();
    }
    testing::TestHub bus;
    std::vector<std::unique_ptr<TestClient>> clients;
};

TEST_F(ClientNumberTest, BeginsAnewAtAThousandAfterTheHighest) {
    bus.hub.setNextClient(0xFFFFFFFE);
    for (const std::uint32_t number : {0xFFFFFFFEU, 0xFFFFFFFFU, 1000U, 1001U}) EXPECT_EQ(next(), number);
    EXPECT_EQ(bus.hub.peerCount(), 4U);
}

TEST_F(ClientNumberTest, OfALiveConnectionIsPassedOver) {
    for (const std::uint32_t number : {1000U, 1001U, 1002U}) EXPECT_EQ(next(), number);
    clients[1]->close();
    bus.hub.setNextClient(0xFFFFFFFF);
    for (const std::uint32_t number : {0xFFFFFFFFU, 1001U, 1003U}) EXPECT_EQ(next(), number);
    EXPECT_EQ(bus.hub.peerCount(), 5U);
}

/// How many connections of a user are served before one is turned away.
class PeerLimitTest : public ::testing::Test {
protected:
    static constexpr uid_t member = 1000, daemon = 1001;

    /// True when the hub takes one more.
    bool takes(uid_t user) {
        const std::size_t before = bus.hub.peerCount();
        clients.push_back(bus.connect(user));
        return bus.hub.peerCount() > before;
    }
    std::size_t takenOf(uid_t user, std::size_t tried = 300) {
        std::size_t taken = 0;
        while (taken < tried && takes(user)) ++taken;
        return taken;
    }

    testing::TestHub bus;
    std::vector<std::unique_ptr<TestClient>> clients;
};

TEST_F(PeerLimitTest, OneUserHasAtMost64AndTheOthersDoNotNotice) {
    EXPECT_EQ(takenOf(member), 64U);
    EXPECT_TRUE(takes(member + 1));
    EXPECT_TRUE(takes(0));
}

TEST_F(PeerLimitTest, AConnectionThatEndsMakesRoomForAnother) {
    EXPECT_EQ(takenOf(member), 64U);
    clients.front()->close();
    bus.settle();
    EXPECT_TRUE(takes(member));
    EXPECT_FALSE(takes(member));
}

TEST_F(PeerLimitTest, RootMayHaveAllOfThem) {
    EXPECT_EQ(takenOf(0), 256U);
}

TEST_F(PeerLimitTest, TheLast32AreForRootAndUsersThatRunPrograms) {
    bus.hub.setAccess(Access({{daemon, {80}}, {.uid = member, .writes = {{20}}}}));
    EXPECT_EQ(takenOf(0, 224), 224U);
    EXPECT_FALSE(takes(member));
    EXPECT_TRUE(takes(daemon));
    EXPECT_EQ(takenOf(0), 31U);
    EXPECT_FALSE(takes(daemon));
}

TEST_F(PeerLimitTest, WhoeverIsTurnedAwayIsToldWhyInOneError) {
    EXPECT_EQ(takenOf(member), 64U);
    const auto told = clients.back()->take();
    ASSERT_EQ(told.size(), 1U);
    tk::message expected = tk::errorMsg(tk::error::busy, "too many connections of one user");
    tk::stamp(expected, {0}, 0, tk::Kind::error, 0);
    EXPECT_EQ(told[0], expected);
    EXPECT_TRUE(clients.back()->isClosed());
    EXPECT_EQ(takenOf(0), 192U);
    EXPECT_EQ(tk::getError(clients.back()->take().at(0)), "too many connections");
}

TEST_F(PeerLimitTest, ATurnedAwayPeerThatIsGoneAlreadyHarmsNobody) {
    const auto client = bus.connect();
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    const tk::Fd socket(ends[0]);
    ::close(ends[1]);
    bus.hub.turnAway(socket, 7, tk::error::refused, "not you");
    EXPECT_EQ(codeOf(bus.ask(*client, {33}, command)), tk::error::unreachable);
}

}  // namespace
}  // namespace hub
