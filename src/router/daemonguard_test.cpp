#include "router/daemonguard.h"

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"

namespace router {
namespace {

class DaemonGuardTest : public ::testing::Test {
protected:
    std::vector<uid_t> guarded;
    DaemonGuard guard{[this](uid_t user) { guarded.push_back(user); }};
};

TEST_F(DaemonGuardTest, GuardsWhoeverBecomesTheDaemon) {
    guard.programComes(80, 71);
    guard.programComes(14, 72);
    EXPECT_EQ(guarded, std::vector<uid_t>{71});
}

TEST_F(DaemonGuardTest, SaysThatNothingGuardsRoot) {
    const tk::testing::CapturedOutput output;
    guard.programComes(80, 0);
    guard.programComes(14, 0);
    EXPECT_TRUE(guarded.empty());
    EXPECT_EQ(output.text(),
              "program 80 runs as root: what it asks for is not checked, and nothing guards it\n");
}

TEST_F(DaemonGuardTest, GuardsUsersWhoMayBecomeTheDaemonBeforeTheyDo) {
    guard.setUsers({{72, {14}}, {73, {14, 80}}, {.uid = 74, .isAdmin = true}, {71, {80}}});
    EXPECT_EQ(guarded, (std::vector<uid_t>{73, 71}));
}

}  // namespace
}  // namespace router
