#include "bench/times.h"

#include <gtest/gtest.h>

namespace bench {

namespace {

TEST(Times, QuantilesAreDurationsThatWereTaken) {
    Times times(4);
    for (const std::int64_t duration : {3000, 1000, 4000, 2000}) times.add(duration);
    EXPECT_EQ(times.count(), 4U);
    EXPECT_DOUBLE_EQ(times.quantile(0), 1);
    EXPECT_DOUBLE_EQ(times.quantile(0.5), 3);
    EXPECT_DOUBLE_EQ(times.quantile(0.99), 4);
    EXPECT_DOUBLE_EQ(times.quantile(1), 4);
}

TEST(Times, WithoutADurationThereIsNothing) {
    EXPECT_DOUBLE_EQ(Times(0).quantile(0.5), 0);
}

}  // namespace

}  // namespace bench
