// The process that starts programs: a program that could not be started does not run, and the next one can be.
#include "hub/launcher.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "hub/processes.h"
#include "tk/fd.h"
#include "tk/testing/capturedoutput.h"

namespace faults {

namespace {

constexpr std::chrono::milliseconds patience{1000};

/// A launcher and a program that runs until it is told to end.
class LauncherWorld final : public World {
public:
    Outcome act() override {
        Outcome outcome(3);
        std::unique_ptr<hub::Launcher> launcher = open();
        if (!launcher) return outcome;
        outcome[0] = "open";
        {
            const InProgram here;
            auto started = launcher->start(programs.front());
            isCutOff = started.reason().ends_with("has ended");
            if (started.isOk()) {
                outcome[1] = "started";
                outcome[2] = end(*launcher, *started);
            }
        }
        launcher.reset();
        noteLeftOvers();
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    std::unique_ptr<hub::Launcher> open() const {
        const InProgram here;
        auto launcher = std::make_unique<hub::Launcher>(patience);
        if (!launcher->open(programs, [this] { return tk::Result(programs); }).isOk()) return {};
        return launcher;
    }
    static std::string end(hub::Launcher& launcher, const hub::Started& started) {
        launcher.signal(started.pid, SIGTERM);
        pollfd ended{started.process.get(), POLLIN, 0};
        if (::poll(&ended, 1, static_cast<int>(patience.count())) != 1) {
            ::kill(started.pid, SIGKILL);
            return {};
        }
        return launcher.reap(started.pid) ? "reaped" : "";
    }
    /// The launcher ends with its socket. Whatever it started and nobody ended comes to this process then.
    void noteLeftOvers() {
        if (isCutOff) return endAll();
        constexpr int waits = 500;
        for (int wait = 0; wait < waits; ++wait) {
            pid_t child = 0;
            while ((child = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
            }
            if (child < 0) return;
            ::usleep(1000);
        }
        broken += "a program runs that nobody knows of\n";
        endAll();
    }
    /// Those of a child become this process's own when it has ended.
    static void endAll() {
        for (pid_t ended = 0; (ended = ::waitpid(-1, nullptr, WNOHANG)) >= 0;) {
            std::ifstream children("/proc/self/task/" + std::to_string(::getpid()) + "/children");
            for (pid_t child = 0; children >> child;) ::kill(child, SIGKILL);
            if (ended == 0) ::usleep(1000);
        }
    }

    tk::testing::CapturedOutput output;
    const std::vector<hub::ProgramConfig> programs{{80, {"/bin/sleep", "5"}}};
    bool isCutOff = false;  // from the launcher, which cannot be told any more what to end
    std::string broken;
};

class LauncherFaults : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
    void TearDown() override {
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
        EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
    }
};

TEST_F(LauncherFaults, LeaveNoProgramThatNobodyKnowsOf) {
    failEveryCall([] { return std::make_unique<LauncherWorld>(); });
}

TEST_F(LauncherFaults, AProgramWhoseEndNobodyWouldHearOfIsEnded) {
    const std::vector<hub::ProgramConfig> programs{{80, {"/bin/sleep", "60"}}};
    hub::Launcher launcher(patience);
    ASSERT_TRUE(launcher.open(programs, [&] { return tk::Result(programs); }).isOk());
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const tk::Fd lowest(::dup(STDIN_FILENO));
    const rlimit none{static_cast<rlim_t>(lowest.get()), limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string reason = launcher.start(programs.front()).reason();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(reason, "there is no descriptor left for the process");
    const auto again = launcher.start(programs.front());
    ASSERT_EQ(again.reason(), "");
    launcher.signal(again->pid, SIGKILL);
}

TEST_F(LauncherFaults, ALostAnswerIsNotTheLaunchersEnd) {
    const std::vector<hub::ProgramConfig> programs{{80, {"/bin/true"}}};
    begin({Call::sendmsg, 1, ENOBUFS});
    {
        const InProgram here;
        hub::Launcher launcher(patience);
        ASSERT_TRUE(launcher.open(programs, [&] { return tk::Result(programs); }).isOk());
        EXPECT_FALSE(launcher.start(programs.front()).isOk());
        const auto second = launcher.start(programs.front());
        EXPECT_EQ(second.reason(), "");
    }
    EXPECT_TRUE(hasStruck());
    (void)end();
}

TEST_F(LauncherFaults, AProgramThatCannotTellWhetherItRunsIsKilled) {
    begin({Call::read, 1, EIO});
    {
        const InProgram here;
        const auto started = hub::OwnProcesses().start({80, {"/bin/sleep", "60"}});
        EXPECT_EQ(started.reason(), "/bin/sleep: Input/output error");
    }
    EXPECT_TRUE(hasStruck());
    (void)end();
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a program runs that nobody knows of";
}

}  // namespace

}  // namespace faults
