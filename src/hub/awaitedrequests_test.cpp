#include "hub/awaitedrequests.h"

#include <gtest/gtest.h>

namespace hub {
namespace {

constexpr std::uint32_t first = 1000, second = 1001;  // peers

class AwaitedRequestsTest : public ::testing::Test {
protected:
    void add(std::uint32_t program, std::uint32_t requester, const std::string& flat) {
        EXPECT_TRUE(awaited.add(program, requester, flat, budget));
    }
    template <typename Requests>
    static std::string texts(const Requests& requests) {
        std::string all;
        for (const auto& request : requests) all += request.flat + " ";
        return all;
    }

    tk::Budget budget{10000};
    AwaitedRequests awaited;
};

TEST_F(AwaitedRequestsTest, AreTakenInTheOrderOfTheirArrival) {
    add(80, first, "a");
    add(14, first, "b");
    add(80, second, "c");
    EXPECT_EQ(texts(awaited.take(80)), "a c ");
    EXPECT_FALSE(awaited.has(80));
    EXPECT_TRUE(awaited.has(14));
    EXPECT_EQ(texts(awaited.take(80)), "");
}

TEST_F(AwaitedRequestsTest, AreOldFromTheSecondRoundOn) {
    add(80, first, "a");
    EXPECT_EQ(texts(awaited.takeOld()), "");
    add(80, first, "b");
    add(14, first, "c");
    EXPECT_EQ(texts(awaited.takeOld()), "a ");
    EXPECT_EQ(texts(awaited.takeOld()), "c b ");
    EXPECT_TRUE(awaited.isEmpty());
}

TEST_F(AwaitedRequestsTest, GoWithTheirRequester) {
    add(80, first, "a");
    add(80, second, "b");
    add(14, first, "c");
    awaited.drop(first);
    EXPECT_FALSE(awaited.hasOf(first));
    EXPECT_TRUE(awaited.hasOf(second));
    EXPECT_FALSE(awaited.has(14));
    EXPECT_EQ(texts(awaited.take(80)), "b ");
}

TEST_F(AwaitedRequestsTest, ArePaidForWhileTheyWait) {
    add(80, first, std::string(5000, 'x'));
    EXPECT_GE(budget.usedBytes(), 5000U);
    EXPECT_FALSE(awaited.add(14, first, std::string(5000, 'x'), budget));
    EXPECT_FALSE(awaited.has(14)) << "what is refused leaves nothing";
    (void)awaited.take(80);  // and thrown away
    EXPECT_EQ(budget.usedBytes(), 0U);
}

}  // namespace
}  // namespace hub
