#include "hub/launcher.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

namespace router {
namespace {

class LauncherTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string reason;
        ASSERT_TRUE(launcher.open(programs, reason)) << reason;
    }
    static bool hasEnded(const tk::Fd& process) {
        pollfd ended{process.get(), POLLIN, 0};
        return ::poll(&ended, 1, 5000) == 1;
    }

    const std::vector<ProgramConfig> programs = {
        {80, {"/bin/sh", "-c", "exit 3"}}, {81, {"/bin/sleep", "60"}}, {82, {"/nonexistent/program"}}};
    Launcher launcher;
    tk::Fd process;
    std::string reason;
    int status = 0;
};

TEST_F(LauncherTest, StartsAndReapsAProgram) {
    const pid_t pid = launcher.start(programs[0], process, reason);
    ASSERT_GT(pid, 0) << reason;
    ASSERT_TRUE(hasEnded(process));
    ASSERT_TRUE(launcher.reap(pid, status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_FALSE(launcher.reap(pid, status)) << "it is nobody's any more";
}

TEST_F(LauncherTest, SignalsWhatItStarted) {
    const pid_t pid = launcher.start(programs[1], process, reason);
    ASSERT_GT(pid, 0) << reason;
    EXPECT_FALSE(launcher.reap(pid, status));
    launcher.signal(pid, SIGTERM);
    ASSERT_TRUE(hasEnded(process));
    ASSERT_TRUE(launcher.reap(pid, status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(LauncherTest, SignalsNobodyElse) {
    launcher.signal(::getpid(), SIGTERM);
    EXPECT_FALSE(launcher.reap(::getpid(), status));
}

TEST_F(LauncherTest, SaysWhyAProgramCannotBeStarted) {
    EXPECT_LT(launcher.start(programs[2], process, reason), 0);
    EXPECT_EQ(reason, "/nonexistent/program: No such file or directory");
}

TEST_F(LauncherTest, StartsNothingButWhatIsConfigured) {
    EXPECT_LT(launcher.start({83, {"/bin/true"}}, process, reason), 0);
    EXPECT_EQ(reason, "no such program");
}

}  // namespace
}  // namespace router
