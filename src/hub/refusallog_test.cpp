#include "hub/refusallog.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "hub/hub.h"
#include "hub/testing/testhub.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"

namespace hub {
namespace {

constexpr std::uint32_t minute = RefusalLog::intervalTicks;
constexpr const char* first = "bus: connection of user 7 refused: too many\n";

class RefusalLogTest : public ::testing::Test {
protected:
    ~RefusalLogTest() override { refusals.close(); }
    void note(uid_t user, const std::string& why) {
        refusals.note("connection of user " + std::to_string(user) + " refused", user, why);
    }

    testing::TestHub bus;
    RefusalLog refusals{"bus", "connections refused"};
    tk::testing::CapturedOutput output;
};

TEST_F(RefusalLogTest, TellsOfTheFirstAtOnce) {
    note(7, "too many");
    EXPECT_EQ(output.text(), first);
}

TEST_F(RefusalLogTest, CountsTheOthersAndTellsOfThemOnceAMinute) {
    for (uid_t user = 7; user < 1007; ++user) note(user, "too many");
    bus.advance(minute - 1);
    EXPECT_EQ(output.text(), first);
    bus.advance(1);
    std::string expected = first;
    expected += "bus: 999 more connections refused, the last of user 1006: too many\n";
    EXPECT_EQ(output.text(), expected);
    note(8, "not in the group");
    bus.advance(minute - 1);
    EXPECT_EQ(output.text(), expected);
    bus.advance(1);
    expected += "bus: 1 more connections refused, the last of user 8: not in the group\n";
    EXPECT_EQ(output.text(), expected);
}

TEST_F(RefusalLogTest, ALaterOneIsAFirstAgain) {
    note(7, "too many");
    bus.advance(minute);
    EXPECT_EQ(bus.looper.runner().timerCount(), 0U);
    note(7, "too many");
    EXPECT_EQ(output.text(), std::string(first) + first);
}

TEST_F(RefusalLogTest, TellsWhatIsLeftAtTheEnd) {
    note(7, "too many");
    note(7, "too many");
    refusals.close();
    EXPECT_EQ(output.text(),
              std::string(first) + "bus: 1 more connections refused, the last of user 7: too many\n");
    EXPECT_EQ(bus.looper.runner().timerCount(), 0U);
}

TEST_F(RefusalLogTest, CountsWhomTheHubTurnsAway) {
    std::vector<std::unique_ptr<testing::TestClient>> clients;
    for (std::size_t i = 0; i < Peers::limitPerUser + 3; ++i) clients.push_back(bus.connect(7));
    bus.advance(minute);
    EXPECT_EQ(output.text(),
              "bus: connection of user 7 refused: too many connections of one user\n"
              "bus: 2 more connections refused, the last of user 7: too many connections of one user\n");
}

TEST_F(RefusalLogTest, MayTellOfSomeAtOnceBeforeItCounts) {
    RefusalLog leaves{"bus", "programs left", 3};
    for (uid_t user = 1; user <= 5; ++user) leaves.note("80 left", user, "so");
    const std::string expected = "bus: 80 left: so\nbus: 80 left: so\nbus: 80 left: so\n";
    EXPECT_EQ(output.text(), expected);
    bus.advance(minute);
    EXPECT_EQ(output.text(), expected + "bus: 2 more programs left, the last of user 5: so\n");
    leaves.note("80 left", 6, "so");
    bus.advance(minute);
    EXPECT_EQ(output.text(), expected +
                                 "bus: 2 more programs left, the last of user 5: so\n"
                                 "bus: 1 more programs left, the last of user 6: so\n");
    bus.advance(minute);
    leaves.note("80 left", 7, "so");
    leaves.close();
    EXPECT_TRUE(output.text().ends_with("user 6: so\nbus: 80 left: so\n"));
}

TEST_F(RefusalLogTest, CountsWhoSendsMalformedFrames) {
    for (int i = 0; i < 5; ++i) {
        const auto client = bus.connect(7);
        client->sendBytes(std::string("\x05\x00\x00\x00\x01\x00\x00\x00\x63", 9));
        bus.settle();
    }
    bus.advance(minute);
    EXPECT_EQ(output.text(),
              "bus: 1000 left: it sent a malformed frame\n"
              "bus: 4 more connections dropped, the last of user 7: it sent a malformed frame\n");
}

TEST_F(RefusalLogTest, CountsWhoAsksWhatItMayNot) {
    const auto client = bus.connect(7);
    for (int i = 0; i < 5; ++i) client->request({80}, tk::command::set);
    client->notify({80, 0}, 5);
    EXPECT_EQ(bus.arrivedAt(*client).size(), 5U);
    bus.advance(minute);
    EXPECT_EQ(
        output.text(),
        "bus: message of user 7 refused: it may not change {80}: it needs writes = [\"80\"]\n"
        "bus: 5 more messages refused, the last of user 7: it may not tell anything: it is no program\n");
}

TEST_F(RefusalLogTest, CountsProgramsThatComeAndGo) {
    for (int i = 0; i < 40; ++i) {
        const auto program = bus.connectProgram(80);
        program->close();
        bus.settle();
    }
    bus.advance(minute);
    const std::string told = output.text();
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 17);
    EXPECT_TRUE(told.ends_with("bus: 24 more programs left, the last of user 0: it closed the connection\n"));
}

}  // namespace
}  // namespace hub
