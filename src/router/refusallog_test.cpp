#include "router/refusallog.h"

#include <gtest/gtest.h>

#include "router/hub.h"
#include "router/testing/testhub.h"
#include "tk/testing/capturedoutput.h"

namespace router {
namespace {

constexpr std::uint32_t minute = RefusalLog::intervalTicks;
constexpr const char* first = "bus: connection of user 7 refused: too many\n";

class RefusalLogTest : public ::testing::Test {
protected:
    ~RefusalLogTest() override { refusals.close(); }

    testing::TestHub bus;
    RefusalLog refusals;
    tk::testing::CapturedOutput output;
};

TEST_F(RefusalLogTest, TellsOfTheFirstAtOnce) {
    refusals.note(7, "too many");
    EXPECT_EQ(output.text(), first);
}

TEST_F(RefusalLogTest, CountsTheOthersAndTellsOfThemOnceAMinute) {
    for (uid_t user = 7; user < 1007; ++user) refusals.note(user, "too many");
    bus.advance(minute - 1);
    EXPECT_EQ(output.text(), first);
    bus.advance(1);
    std::string expected = first;
    expected += "bus: 999 more connections refused, the last of user 1006: too many\n";
    EXPECT_EQ(output.text(), expected);
    refusals.note(8, "not in the group");
    bus.advance(minute - 1);
    EXPECT_EQ(output.text(), expected);
    bus.advance(1);
    expected += "bus: 1 more connections refused, the last of user 8: not in the group\n";
    EXPECT_EQ(output.text(), expected);
}

TEST_F(RefusalLogTest, ALaterOneIsAFirstAgain) {
    refusals.note(7, "too many");
    bus.advance(minute);
    EXPECT_EQ(bus.looper.runner().timerCount(), 0U);
    refusals.note(7, "too many");
    EXPECT_EQ(output.text(), std::string(first) + first);
}

TEST_F(RefusalLogTest, TellsWhatIsLeftAtTheEnd) {
    refusals.note(7, "too many");
    refusals.note(7, "too many");
    refusals.close();
    EXPECT_EQ(output.text(),
              std::string(first) + "bus: 1 more connections refused, the last of user 7: too many\n");
    EXPECT_EQ(bus.looper.runner().timerCount(), 0U);
}

TEST_F(RefusalLogTest, CountsWhomTheHubTurnsAway) {
    std::vector<std::unique_ptr<testing::TestClient>> clients;
    for (std::size_t i = 0; i < Hub::peerLimitPerUser + 3; ++i) clients.push_back(bus.connect(7));
    bus.advance(minute);
    EXPECT_EQ(output.text(),
              "bus: connection of user 7 refused: too many connections of one user\n"
              "bus: 2 more connections refused, the last of user 7: too many connections of one user\n");
}

}  // namespace
}  // namespace router
