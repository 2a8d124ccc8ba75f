#include "tk/channel.h"

#include <sys/socket.h>

#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace tk {
namespace {

message numbered(std::uint32_t number, std::size_t size = 0) {
    message content;
    content.insert_u32(1, number);
    content.insert_string(2, std::string(size, 'x'));
    return content;
}

std::string framed(const message& content) {
    std::string frame;
    EXPECT_TRUE(appendFrame(frame, content));
    return frame;
}

constexpr std::size_t budgetBytes = std::size_t{1024} * 1024;

class ChannelTest : public ::testing::Test, public ChannelOwner {
protected:
    void SetUp() override {
        int fds[2] = {-1, -1};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
        peer.reset(fds[0]);
        channel = std::make_unique<Channel>(loop.looper.runner(), Fd(fds[1]), *this, budget, limits);
    }
    void TearDown() override { channel.reset(); }

    void received(message content) override {
        arrived.push_back(std::move(content));
        if (onReceived) onReceived();
    }
    void broken(const std::string& reason) override {
        ++breaks;
        if (deleteWhenBroken) channel.reset();
        why = reason;
    }

    void peerSends(const std::string& bytes) {
        ASSERT_EQ(::send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// What the peer can read now, at most one megabyte at a time.
    std::string peerReads() const {
        std::string bytes(std::size_t{1024} * 1024, '\0');
        const ssize_t count = ::recv(peer.get(), bytes.data(), bytes.size(), 0);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    tk::testing::TestLoop loop;
    Fd peer;
    Budget budget{budgetBytes};
    Budget other{budgetBytes};
    ChannelLimits limits;
    std::unique_ptr<Channel> channel;
    std::vector<message> arrived;
    std::string why;
    int breaks = 0;
    bool deleteWhenBroken = false;
    std::function<void()> onReceived;
};

TEST_F(ChannelTest, WhatTakesLongLeavesTheTurnToOthers) {
    onReceived = [this] { loop.clock.advance(2); };
    peerSends(framed(numbered(1)) + framed(numbered(2)) + framed(numbered(3)));
    loop.looper.turn(0);
    EXPECT_EQ(arrived.size(), 2U) << "one when it was read, one when its timer was due";
    peer.reset();
    loop.settle();
    EXPECT_EQ(arrived.size(), 3U) << "also of a peer that is gone";
    EXPECT_EQ(breaks, 1);
}

TEST_F(ChannelTest, HandsMessagesOnWhenTheirLastByteIsThere) {
    const std::string stream = framed(numbered(1)) + framed(numbered(2));
    for (const char byte : stream) {
        EXPECT_LT(arrived.size(), 2U);
        peerSends(std::string(1, byte));
        loop.looper.turn(0);
    }
    EXPECT_EQ(arrived, (std::vector<message>{numbered(1), numbered(2)}));
}

TEST_F(ChannelTest, SendsAtOnce) {
    EXPECT_TRUE(channel->send(numbered(1)));
    EXPECT_EQ(peerReads(), framed(numbered(1)));
}

TEST_F(ChannelTest, QueuesWhatThePeerDoesNotTakeAndSendsItInOrderLater) {
    std::string expected;
    for (std::uint32_t number = 0; number < 10; ++number) {
        ASSERT_TRUE(channel->send(numbered(number, 90000)));
        expected += framed(numbered(number, 90000));
    }
    std::string read;
    for (int turns = 0; turns < 100 && read.size() < expected.size(); ++turns) {
        read += peerReads();
        loop.looper.turn(0);
    }
    EXPECT_EQ(read, expected);
    EXPECT_TRUE(channel->isOpen());
}

TEST_F(ChannelTest, BreaksOffAPeerThatDoesNotReadAndTellsFromTheLoop) {
    bool accepted = true;
    for (int sent = 0; sent < 50 && accepted; ++sent) accepted = channel->send(numbered(1, 90000));
    EXPECT_FALSE(accepted);
    EXPECT_FALSE(channel->isOpen());
    EXPECT_EQ(budget.usedBytes(), 0U) << "nothing of it is kept";
    EXPECT_EQ(breaks, 0);
    loop.settle();
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "it does not read what it is sent");
}

TEST_F(ChannelTest, LetsTheQueueGrowToItsLimitAndNotBeyond) {
    const message content = numbered(1, 90000);
    const std::size_t frame = framed(content).size();
    std::size_t sent = 0;
    while (channel->send(content)) sent += frame;
    const std::size_t queued = sent - peerReads().size();  // the peer finds what the kernel had taken
    EXPECT_LE(queued, budgetBytes);
    constexpr std::size_t extra = 1280;
    EXPECT_GT(queued + frame + extra, budgetBytes);  // each of them costs a little more
}

TEST_F(ChannelTest, WhatThePeerReadIsGivenBack) {
    for (std::uint32_t number = 0; number < 10; ++number) ASSERT_TRUE(channel->send(numbered(number, 90000)));
    EXPECT_GT(budget.usedBytes(), 500000U);
    EXPECT_EQ(budget.usedBytes(), channel->queuedBytes());
    for (int turns = 0; turns < 100 && channel->queuedBytes() != 0; ++turns) {
        (void)peerReads();
        loop.looper.turn(0);
    }
    EXPECT_EQ(budget.usedBytes(), 0U);
    EXPECT_EQ(channel->queuedBytes(), 0U);
}

TEST_F(ChannelTest, SmallFramesThatWaitCostWhatTheyTake) {
    while (channel->queuedBytes() == 0) ASSERT_TRUE(channel->send(numbered(1, 90000)));
    const std::size_t before = budget.usedBytes();
    for (int sent = 0; sent < 100; ++sent) ASSERT_TRUE(channel->send(numbered(1)));
    EXPECT_GE(budget.usedBytes() - before, 100 * (framed(numbered(1)).size() + sizeof(std::string)));
}

TEST_F(ChannelTest, AnotherBudgetPaysForItsOwnMessagesAndBreaksNothing) {
    Channel::Sent outcome = Channel::Sent::yes;
    int sent = 0;
    for (; sent < 50 && outcome == Channel::Sent::yes; ++sent)
        outcome = channel->sendFor(other, numbered(1, 90000));
    EXPECT_EQ(outcome, Channel::Sent::noRoom);
    EXPECT_LT(sent, 50);
    EXPECT_FALSE(other.isOver());
    EXPECT_EQ(budget.usedBytes(), 0U);
    EXPECT_TRUE(channel->send(numbered(2))) << "its own budget is untouched";
    channel.reset();
    EXPECT_EQ(other.usedBytes(), 0U);
}

TEST_F(ChannelTest, AnUnfinishedFrameIsChargedUntilItIsComplete) {
    const std::string frame = framed(numbered(1, 100000));
    peerSends(frame.substr(0, frame.size() - 1));
    loop.settle();
    EXPECT_GE(budget.usedBytes(), frame.size() - 1);
    peerSends(frame.substr(frame.size() - 1));
    loop.settle();
    EXPECT_EQ(arrived.size(), 1U);
    EXPECT_EQ(budget.usedBytes(), 0U);
}

TEST_F(ChannelTest, APeerWhoseUnfinishedFrameHasNoRoomIsBrokenOff) {
    const Charge elsewhere(budget, budgetBytes - 1000);
    peerSends(framed(numbered(1, 10000)));
    loop.settle();
    EXPECT_EQ(arrived.size(), 1U) << "what is complete needs no room";
    peerSends(framed(numbered(1, 100000)).substr(0, 2000));
    loop.settle();
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "there is no room for what it sends");
}

TEST_F(ChannelTest, AFrameAboveTheChannelsLimitBreaksItOff) {
    limits.receivedFrame = 1000;
    SetUp();
    peerSends(framed(numbered(1, 900)) + framed(numbered(2, 1000)));
    loop.settle();
    EXPECT_EQ(arrived, (std::vector<message>{numbered(1, 900)}));
    EXPECT_EQ(why, "it sent a frame that is too large");
}

TEST_F(ChannelTest, NothingIsTakenFromAPeerThatDoesNotReadUntilItDoes) {
    limits.unread = 200000;
    SetUp();
    onReceived = [this] { EXPECT_TRUE(channel->send(numbered(9, 90000))); };
    constexpr std::size_t requests = 20;
    for (std::size_t i = 0; i < requests; ++i) peerSends(framed(numbered(1)));
    loop.settle();
    const std::size_t served = arrived.size();
    EXPECT_LT(served, requests);
    EXPECT_LT(channel->queuedBytes(), limits.unread + 100000);
    loop.settle();
    EXPECT_EQ(arrived.size(), served);
    for (int turns = 0; turns < 100 && arrived.size() < requests; ++turns) {
        (void)peerReads();
        loop.looper.turn(0);
    }
    EXPECT_EQ(arrived.size(), requests);
}

TEST_F(ChannelTest, TheEndOfAPeerThatIsNotServedIsSeen) {
    limits.unread = 1;
    SetUp();
    while (channel->queuedBytes() == 0) ASSERT_TRUE(channel->send(numbered(1, 90000)));
    loop.settle();
    peer.reset();
    loop.settle();
    EXPECT_EQ(breaks, 1);
}

TEST_F(ChannelTest, WhatOthersPayForKeepsNobodyFromBeingServed) {
    limits.unread = 200000;
    SetUp();
    for (int sent = 0; sent < 8; ++sent)
        ASSERT_EQ(channel->sendFor(other, numbered(1, 90000)), Channel::Sent::yes);
    EXPECT_GT(channel->queuedBytes(), limits.unread);
    peerSends(framed(numbered(1)));
    loop.settle();
    EXPECT_EQ(arrived.size(), 1U);
}

TEST_F(ChannelTest, NothingMoreIsTakenFromAPeerThatWasBrokenOff) {
    onReceived = [this] { channel->breakOff("a fault"); };
    peerSends(framed(numbered(1)) + framed(numbered(2)));
    loop.settle();
    EXPECT_EQ(arrived, std::vector<message>{numbered(1)});
    EXPECT_EQ(breaks, 1);
}

TEST_F(ChannelTest, RefusesAMessageThatIsTooLargeAndStaysOpen) {
    EXPECT_FALSE(channel->send(numbered(1, frameLimit)));
    EXPECT_TRUE(channel->isOpen());
    EXPECT_TRUE(channel->send(numbered(2)));
    EXPECT_EQ(peerReads(), framed(numbered(2)));
}

TEST_F(ChannelTest, RefusesAMessageThatThePeerWouldTakeForMalformed) {
    message deep = numbered(1);
    for (int level = 0; level < 17; ++level) {
        message outer;
        outer.insert_message_array(1, {deep});
        deep = outer;
    }
    EXPECT_FALSE(channel->send(deep));
    message wide;
    for (std::uint32_t id = 0; id < 1025; ++id) wide.insert_bool(id, true);
    EXPECT_FALSE(channel->send(wide));
    EXPECT_TRUE(channel->isOpen());
    EXPECT_EQ(peerReads(), "");
}

TEST_F(ChannelTest, DropsAPeerAtAMalformedFrameAfterHandingOnWhatCameBefore) {
    const char malformed[] = {6, 0, 0, 0, 2, 0, 0, 0, 2, 2};
    peerSends(framed(numbered(1)) + std::string(malformed, sizeof malformed) + framed(numbered(2)));
    loop.settle();
    EXPECT_EQ(arrived, std::vector<message>{numbered(1)});
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "it sent a malformed frame");
    EXPECT_FALSE(channel->send(numbered(3)));
}

TEST_F(ChannelTest, HandsOnWhatThePeerSentBeforeItClosed) {
    peerSends(framed(numbered(1)) + framed(numbered(2)));
    peer.reset();
    loop.settle();
    EXPECT_EQ(arrived, (std::vector<message>{numbered(1), numbered(2)}));
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "it closed the connection");
}

TEST_F(ChannelTest, HandsOnWhatThePeerSentBeforeItClosedEvenIfItReadNothing) {
    for (int sent = 0; sent < 5; ++sent) ASSERT_TRUE(channel->send(numbered(1, 90000)));  // fills its buffer
    peerSends(framed(numbered(2)) + framed(numbered(3, 100000)));
    peer.reset();
    loop.settle();
    EXPECT_EQ(arrived, (std::vector<message>{numbered(2), numbered(3, 100000)}));
    EXPECT_EQ(breaks, 1);
}

TEST_F(ChannelTest, OwnerMayDestroyItWhenAMessageArrives) {
    onReceived = [this] { channel.reset(); };
    peerSends(framed(numbered(1)) + framed(numbered(2)));
    loop.settle();
    EXPECT_EQ(arrived, std::vector<message>{numbered(1)});
    EXPECT_EQ(breaks, 0);
}

TEST_F(ChannelTest, OwnerMayDestroyItWhenItBreaksAndStillReadTheReason) {
    deleteWhenBroken = true;
    peer.reset();
    loop.settle();
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "it closed the connection");
}

TEST_F(ChannelTest, BrokenOffByItsOwnerTellsTheOwnersReasonOnceFromTheLoop) {
    channel->breakOff("a reason of its own");
    channel->breakOff("another one");
    EXPECT_EQ(breaks, 0);
    loop.settle();
    EXPECT_EQ(breaks, 1);
    EXPECT_EQ(why, "a reason of its own");
}

TEST_F(ChannelTest, PumpReadsWithoutCallingTheOwner) {
    peerSends(framed(numbered(1)) + framed(numbered(2)));
    ASSERT_TRUE(channel->pump(0));
    message taken;
    ASSERT_TRUE(channel->take(taken));
    EXPECT_EQ(taken, numbered(1));
    EXPECT_TRUE(arrived.empty());
    loop.settle();
    EXPECT_EQ(arrived, std::vector<message>{numbered(2)});
}

}  // namespace
}  // namespace tk
