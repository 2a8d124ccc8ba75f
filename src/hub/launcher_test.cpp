#include "hub/launcher.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

namespace hub {
namespace {

class LauncherTest : public ::testing::Test {
protected:
    void SetUp() override {
        const tk::Status opened = launcher.open(programs);
        ASSERT_TRUE(opened.isOk()) << opened.reason();
    }
    static bool hasEnded(const tk::Fd& process) {
        pollfd ended{process.get(), POLLIN, 0};
        return ::poll(&ended, 1, 5000) == 1;
    }

    const std::vector<ProgramConfig> programs = {
        {80, {"/bin/sh", "-c", "exit 3"}}, {81, {"/bin/sleep", "60"}}, {82, {"/nonexistent/program"}}};
    Launcher launcher;
};

TEST_F(LauncherTest, StartsAndReapsAProgram) {
    const auto started = launcher.start(programs[0]);
    ASSERT_TRUE(started.isOk()) << started.reason();
    ASSERT_TRUE(hasEnded(started->process));
    const std::optional<int> status = launcher.reap(started->pid);
    ASSERT_TRUE(status);
    EXPECT_EQ(WEXITSTATUS(*status), 3);
    EXPECT_FALSE(launcher.reap(started->pid)) << "it is nobody's any more";
}

TEST_F(LauncherTest, SignalsWhatItStarted) {
    const auto started = launcher.start(programs[1]);
    ASSERT_TRUE(started.isOk()) << started.reason();
    EXPECT_FALSE(launcher.reap(started->pid));
    launcher.signal(started->pid, SIGTERM);
    ASSERT_TRUE(hasEnded(started->process));
    const std::optional<int> status = launcher.reap(started->pid);
    ASSERT_TRUE(status);
    EXPECT_EQ(WTERMSIG(*status), SIGTERM);
}

TEST_F(LauncherTest, SignalsNobodyElse) {
    launcher.signal(::getpid(), SIGTERM);
    EXPECT_FALSE(launcher.reap(::getpid()));
}

TEST_F(LauncherTest, SaysWhyAProgramCannotBeStarted) {
    EXPECT_EQ(launcher.start(programs[2]).reason(), "/nonexistent/program: No such file or directory");
}

TEST_F(LauncherTest, StartsNothingButWhatIsConfigured) {
    EXPECT_EQ(launcher.start({83, {"/bin/true"}}).reason(), "no such program");
}

}  // namespace
}  // namespace hub
