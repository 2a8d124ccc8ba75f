// How requests end, with the real kernel where it can be made to, else with its messages made by hand.

#include "netlink/request.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace netlink {
namespace {

/// A request for interfaces.
class LinkRequest {
public:
    explicit LinkRequest(int index = 0) {
        message = mnl_nlmsg_put_header(buffer.data());
        message->nlmsg_type = RTM_GETLINK;
        auto* own = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
        own->ifi_index = index;
    }
    nlmsghdr& get() { return *message; }

private:
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* message;
};

class RequestTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(socket.open(NETLINK_ROUTE).isOk()); }
    Visitor count() {
        return [this](const nlmsghdr& message) { heard += message.nlmsg_type == RTM_NEWLINK ? 1 : 100; };
    }

    Socket socket;
    int heard = 0;
};

TEST_F(RequestTest, IsVisitedWithTheAnswer) {
    LinkRequest loopback(1);
    EXPECT_EQ(request(socket, loopback.get(), count()), tk::Status());
    EXPECT_EQ(heard, 1);
}

TEST_F(RequestTest, EndsWithTheKernelsRefusal) {
    LinkRequest nobody(0x7FFFFFFF);
    const tk::Status outcome = request(socket, nobody.get(), count());
    EXPECT_EQ(outcome.code(), static_cast<std::uint32_t>(ENODEV));
    EXPECT_EQ(outcome.reason(), "No such device");
    EXPECT_EQ(heard, 0);
}

TEST_F(RequestTest, EndsWhenItCannotBeSent) {
    socket.close();
    LinkRequest loopback(1);
    EXPECT_EQ(request(socket, loopback.get(), count()).code(), static_cast<std::uint32_t>(EBADF));
}

TEST_F(RequestTest, ADumpGivesTheWholeList) {
    LinkRequest all;
    int attempts = 0;
    EXPECT_TRUE(dump(
                    socket, all.get(), [&attempts] { ++attempts; }, count())
                    .isOk());
    EXPECT_EQ(attempts, 1);
    EXPECT_GE(heard, 1);
    EXPECT_LT(heard, 100) << "the end of the list is none of it";
}

TEST_F(RequestTest, OneDoesNotHearTheAnswerToAnother) {
    LinkRequest former(1);
    former.get().nlmsg_seq = socket.nextSequence();
    former.get().nlmsg_flags = NLM_F_REQUEST;
    ASSERT_TRUE(socket.send(&former.get(), former.get().nlmsg_len).isOk());
    LinkRequest latter(1);
    EXPECT_TRUE(request(socket, latter.get(), count()).isOk());
    EXPECT_EQ(heard, 1);
}

TEST_F(RequestTest, WithoutAnAnswerItMayHaveBeenDone) {
    Answer answer(1, 1);  // to what was never asked
    answer.complete(socket, 1, ignore);
    EXPECT_TRUE(answer.isComplete());
    EXPECT_EQ(answer.outcome().code(), unanswered);
    EXPECT_EQ(answer.outcome().reason(), "Connection timed out");
    EXPECT_FALSE(answer.isPartial());
}

TEST_F(RequestTest, ATransactionEndsWithTheFirstError) {
    constexpr int nobody = 0x7FFFFFFF;
    std::vector<char> messages;
    const std::uint32_t first = socket.nextSequence();
    const std::uint32_t middle = socket.nextSequence();
    const std::uint32_t last = socket.nextSequence();
    for (const std::uint32_t sequence : {first, middle, last}) {
        LinkRequest one(sequence == middle ? nobody : 1);
        one.get().nlmsg_flags = NLM_F_REQUEST;
        if (sequence == last) one.get().nlmsg_flags |= NLM_F_ACK;
        one.get().nlmsg_seq = sequence;
        const auto* start = reinterpret_cast<const char*>(&one.get());
        messages.insert(messages.end(), start, start + MNL_ALIGN(one.get().nlmsg_len));
    }
    EXPECT_EQ(transact(socket, messages, first, last).code(), static_cast<std::uint32_t>(ENODEV));
}

/// An error message that repeats a request of this length, and then explains itself.
class Explained {
public:
    explicit Explained(std::uint32_t requestLength, int number = -EINVAL) {
        message = mnl_nlmsg_put_header(buffer.data());
        message->nlmsg_type = NLMSG_ERROR;
        message->nlmsg_flags = NLM_F_ACK_TLVS;
        auto* error = static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(message, sizeof(nlmsgerr)));
        error->error = number;
        error->msg.nlmsg_len = requestLength;
        mnl_attr_put_strz(message, NLMSGERR_ATTR_MSG, "because");
    }
    const nlmsghdr& get() const { return *message; }

private:
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* message;
};

TEST(Outcome, HasTheKernelsWordsAfterTheRequestThatTheyAreAbout) {
    EXPECT_EQ(outcomeOf(Explained(sizeof(nlmsghdr)).get()).reason(), "Invalid argument (because)");
}

TEST(Outcome, HasNoWordsWhenTheRequestBeforeThemCannotBeThatLong) {
    for (const std::uint32_t length : {0U, 15U, 1000U, 0x80000000U, 0xC0000000U, 0xFFFFFFFFU})
        EXPECT_EQ(outcomeOf(Explained(length).get()).reason(), "Invalid argument") << length;
}

TEST(Outcome, IsABadMessageForANumberThatCannotBeNegated) {
    const Explained lowest(sizeof(nlmsghdr), std::numeric_limits<int>::min());
    EXPECT_EQ(outcomeOf(lowest.get()).code(), static_cast<std::uint32_t>(EBADMSG));
}

TEST(Answer, ToNothingIsComplete) {
    EXPECT_TRUE(Answer().isComplete());
    EXPECT_TRUE(Answer().outcome().isOk());
}

TEST(Answer, IsUnderWayUntilItsEnd) {
    EXPECT_FALSE(Answer(1, 1).isComplete());
}

}  // namespace
}  // namespace netlink
