#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/processes.h"

namespace router::testing {

/// Runs nothing: its processes end when and how a test says.
class FakeProcesses final : public Processes {
public:
    pid_t start(const ProgramConfig& program, tk::Fd& process, std::string& reason) override {
        started.push_back(program.unit.empty() ? program.command.front() : program.unit);
        if (!fault.empty()) {
            reason = fault;
            return -1;
        }
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        process.reset(ends[0]);
        running.reset(ends[1]);
        return static_cast<pid_t>(started.size());
    }
    void signal(pid_t, int number) override {
        signals.push_back(number);
        if (number == SIGKILL) running.reset();
    }
    bool reap(pid_t, int& status) override {
        status = endStatus;
        return true;
    }
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

}  // namespace router::testing
