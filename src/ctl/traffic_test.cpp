#include "ctl/traffic.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

Mapping used(std::uint64_t bytes, std::uint16_t port = 80) {
    Mapping mapping;
    mapping.externalPort = port;
    mapping.bytes = bytes;
    return mapping;
}

struct TrafficHistoryTest : testing::Test {
    /// The history's line after a mapping's bytes are noted.
    std::string after(std::uint64_t bytes, std::uint64_t seconds) {
        history.note({used(bytes)}, seconds * 1000);
        return historyLine(history.of(used(0)), /*isUnicode=*/false);
    }
    TrafficHistory history;
};

TEST_F(TrafficHistoryTest, WhatWasThereBeforeIsNoTraffic) {
    EXPECT_EQ(after(1000, 0), std::string(20, ' '));
}

TEST_F(TrafficHistoryTest, TrafficMovesToTheLeftAndOutOfTheMinute) {
    (void)after(1000, 0);
    EXPECT_EQ(after(1003, 1), std::string(19, ' ') + '.');
    EXPECT_EQ(after(1003, 3), std::string(18, ' ') + ". ");
    EXPECT_EQ(after(1003, 59), '.' + std::string(19, ' '));
    EXPECT_EQ(after(1003, 60), std::string(20, ' '));
}

TEST_F(TrafficHistoryTest, ALongPauseLeavesNothing) {
    (void)after(0, 0);
    (void)after(1000, 1);
    EXPECT_EQ(after(1000, 1000000), std::string(20, ' '));
}

TEST_F(TrafficHistoryTest, AMappingThatComesLaterCountsFromTheStart) {
    history.note({}, 0);
    EXPECT_EQ(after(600, 1), std::string(19, ' ') + ':');
}

TEST_F(TrafficHistoryTest, ARuleThatIsMadeAnewCountsFromTheStart) {
    (void)after(1000000, 0);
    EXPECT_EQ(after(300, 1), std::string(19, ' ') + ':');
    EXPECT_EQ(history.of(used(0)).back(), 300U);
}

TEST_F(TrafficHistoryTest, EachMappingHasItsOwn) {
    history.note({used(0, 80), used(0, 81)}, 0);
    history.note({used(0, 80), used(9, 81)}, 1000);
    EXPECT_EQ(history.of(used(0, 80)).back(), 0U);
    EXPECT_EQ(history.of(used(0, 81)).back(), 9U);
}

TEST_F(TrafficHistoryTest, WhatIsNotedAfterAClearIsOld) {
    (void)after(1000, 0);
    history.clear();
    EXPECT_EQ(after(5000, 1), std::string(20, ' '));
}

TEST(HistoryLine, HasALevelForEachPowerOfTen) {
    TrafficHistory::Slots slots{};
    std::uint64_t bytesPerSecond = 99;
    for (std::size_t slot = 1; slot <= 9; ++slot, bytesPerSecond = bytesPerSecond * 10 + 9)
        slots[slot] = bytesPerSecond * 3;
    EXPECT_EQ(historyLine(slots, /*isUnicode=*/true), " ▁▂▃▄▅▆▇██          ");
    EXPECT_EQ(historyLine(slots, /*isUnicode=*/false), " .:-=+*#@@          ");
}

TEST(HistoryLine, ShowsTheLeastTraffic) {
    TrafficHistory::Slots slots{};
    slots.back() = 1;
    EXPECT_EQ(historyLine(slots, /*isUnicode=*/false), std::string(19, ' ') + '.');
}

}  // namespace
}  // namespace ctl
