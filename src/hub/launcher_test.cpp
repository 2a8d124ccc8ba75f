#include "hub/launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>

#include <gtest/gtest.h>

#include "tk/file.h"
#include "tk/testing/folder.h"

namespace hub {
namespace {

class LauncherTest : public ::testing::Test {
protected:
    void SetUp() override {
        const tk::Status opened = launcher.open(programs, [this] { return reread(); });
        ASSERT_TRUE(opened.isOk()) << opened.reason();
    }
    static bool hasEnded(const tk::Fd& process) {
        pollfd ended{process.get(), POLLIN, 0};
        return ::poll(&ended, 1, 5000) == 1;
    }

    /// What the launcher's own process reads: the file says which of two lists, or nothing.
    tk::Result<std::vector<ProgramConfig>> reread() const {
        const tk::Result<std::string> text = tk::readFile(folder.file("list"), 100);
        if (!text.isOk()) return tk::Status::failure("nothing to read");
        return *text == "new" ? later : programs;
    }

    const tk::testing::Folder folder;
    const std::vector<ProgramConfig> later = {{90, {"/bin/true"}}};
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

TEST_F(LauncherTest, StartsWhatItHasReadItselfOnceThatIsAdopted) {
    folder.write("list", "new");
    EXPECT_EQ(launcher.prepare(later).reason(), "");
    EXPECT_EQ(launcher.start(later[0]).reason(), "no such program") << "not yet";
    launcher.adopt();
    EXPECT_EQ(launcher.start(later[0]).reason(), "");
    EXPECT_EQ(launcher.start(programs[0]).reason(), "no such program");
}

TEST_F(LauncherTest, TakesNoProgramFromTheRouter) {
    folder.write("list", "new");
    EXPECT_EQ(launcher.prepare({{90, {"/bin/false"}}}).reason(),
              "the programs in the configuration changed while it was read: try again");
    launcher.adopt();
    EXPECT_EQ(launcher.start({90, {"/bin/false"}}).reason(), "no such program");
    EXPECT_EQ(launcher.start(programs[0]).reason(), "") << "all is as before";
}

TEST_F(LauncherTest, TellsWhyItCannotRead) {
    EXPECT_EQ(launcher.prepare(later).reason(), "nothing to read");
}

TEST(SlowLauncher, IsWaitedForForALimitedTimeAndItsLateAnswerIsIgnored) {
    const tk::testing::Folder folder;
    const std::string pipe = folder.file("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const std::vector<ProgramConfig> programs = {{80, {"/bin/true"}}};
    Launcher launcher{std::chrono::milliseconds(300)};
    const auto reread = [&pipe]() -> tk::Result<std::vector<ProgramConfig>> {
        const tk::Fd waiting(::open(pipe.c_str(), O_RDONLY | O_CLOEXEC));
        return tk::Status::failure("read at last");
    };
    ASSERT_TRUE(launcher.open(programs, reread).isOk());
    const std::string silent = "the process that starts programs does not answer";
    EXPECT_EQ(launcher.prepare(programs).reason(), silent);
    EXPECT_EQ(launcher.start(programs[0]).reason(), silent);
    const tk::Fd end(::open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
    tk::Result<Started> started = launcher.start(programs[0]);
    ASSERT_TRUE(started.isOk()) << started.reason();
    EXPECT_NE(started->pid, 0);
}

TEST_F(LauncherTest, WhatItStartedStaysItsOwn) {
    const auto started = launcher.start(programs[1]);
    ASSERT_TRUE(started.isOk()) << started.reason();
    folder.write("list", "new");
    EXPECT_EQ(launcher.prepare(later).reason(), "");
    launcher.adopt();
    launcher.signal(started->pid, SIGTERM);
    ASSERT_TRUE(hasEnded(started->process));
    EXPECT_TRUE(launcher.reap(started->pid));
}

}  // namespace
}  // namespace hub
