#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "router/config.h"
#include "router/processes.h"
#include "router/starter.h"
#include "tk/fd.h"
#include "tk/timer.h"

namespace router {

/// Starts the programs of the configuration, reaps them, and ends them with the router.
class Activation final : public Starter {
public:
    /// Hears of programs that end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// `how` is text for people; `hadRegistered` is true when the program was on the bus in its life.
        virtual void programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) = 0;
    };

    /// Lifetime: owner and processes outlive the object.
    Activation(const std::vector<ProgramConfig>& programs, Owner& owner, Processes& processes);
    Activation(const Activation&) = delete;
    Activation& operator=(const Activation&) = delete;
    /// Kills whatever still runs.
    ~Activation() override;

    [[nodiscard]] bool start(std::uint32_t program, std::string& reason) override;
    void registered(std::uint32_t program) override;
    /// Starts what is to run from the beginning. What cannot be started is logged.
    void startConfigured();
    /// Asks every started program to end, and starts none any more.
    void endAll();
    /// True while a started program has not ended.
    bool isRunning() const { return !children.empty(); }

private:
    /// A running program: a process group of its own, watched by a descriptor of the process.
    struct Child {
        Child(Activation& activation, std::uint32_t program, pid_t pid, tk::Fd process);
        void ended(int fd, std::uint32_t events);

        Activation& activation;
        std::uint32_t program;
        pid_t pid;
        bool hasRegistered = false;
        tk::Fd process;
        tk::Watch watch;
    };

    void reap(std::uint32_t program);

    std::map<std::uint32_t, ProgramConfig> programs;
    Owner& owner;
    Processes& processes;
    bool ending = false;
    std::map<std::uint32_t, std::unique_ptr<Child>> children;  // by program
};

}  // namespace router
