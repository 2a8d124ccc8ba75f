#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/processes.h"

namespace hub::testing {

/// Runs nothing: its processes end when and as a test says.
class FakeProcesses final : public Processes {
public:
    tk::Result<Started> start(const ProgramConfig& program) override {
        started.push_back(program.unit.empty() ? program.command.front() : program.unit);
        if (!fault.empty()) return tk::Status::failure(fault);
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        running.reset(ends[1]);
        return Started{static_cast<pid_t>(started.size()), tk::Fd(ends[0])};
    }
    void signal(pid_t, int number) override {
        signals.push_back(number);
        if (number == SIGKILL) running.reset();
    }
    std::optional<int> reap(pid_t) override { return endStatus; }
    void end(int status) {
        endStatus = status;
        running.reset();
    }

    std::vector<std::string> started;
    std::vector<int> signals;
    std::string fault;

private:
    int endStatus = 0;
    tk::Fd running;
};

}  // namespace hub::testing
