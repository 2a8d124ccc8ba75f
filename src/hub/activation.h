#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hub/processes.h"
#include "hub/restart.h"
#include "hub/starter.h"
#include "tk/fd.h"
#include "tk/timer.h"

namespace router {

/// Starts the programs of the configuration, reaps them, and ends them with the router.
///
/// A program that is a unit is systemd's: it is only asked for, by a command whose good end is not the
/// program's. systemd takes a unit whose program has left the bus for running until the process has ended; so
/// it is asked again, each second, for a program that is awaited and does not come.
///
/// A command that is to run with the router comes back after a crash; one that left with status 0 meant it,
/// and is started by the next message for it.
class Activation final : public Starter {
public:
    /// Hears of programs that end.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// `how` is text for people; `hadRegistered` is true when the program was on the bus in its life.
        virtual void programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) = 0;
        /// A program whose start was under way could not be started; `reason` is text for people.
        virtual void startFailed(std::uint32_t program, const std::string& reason) = 0;
        /// True when requests wait for the program.
        virtual bool isAwaited(std::uint32_t program) const = 0;
    };

    /// Lifetime: owner and processes outlive the object.
    Activation(const std::vector<ProgramConfig>& programs, Owner& owner, Processes& processes);
    Activation(const Activation&) = delete;
    Activation& operator=(const Activation&) = delete;
    /// Kills whatever still runs.
    ~Activation() override;

    [[nodiscard]] bool start(std::uint32_t program, std::string& reason) override;
    void registered(std::uint32_t program) override;
    /// Starts what is to run from the beginning. What cannot be started is logged, and a command tried again.
    void startConfigured();
    /// Asks every started program to end, and starts none any more. Units are left to systemd.
    void endAll();
    /// True while a started program has not ended.
    bool isRunning() const { return !children.empty(); }

private:
    /// A running program, or the command that asks for one: a process group of its own, watched by a
    /// descriptor of the process.
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

    /// How long a unit's program may take to come to the bus before systemd is asked again.
    static constexpr std::uint32_t askAgainTicks = 100;  // 1 s

    [[nodiscard]] bool launch(const ProgramConfig& program, std::string& reason);
    void reap(std::uint32_t program);
    void startOrRetry(std::uint32_t program);
    void unitAsked(const ProgramConfig& program, int status);
    void askAgain();

    std::map<std::uint32_t, ProgramConfig> programs;
    Owner& owner;
    Processes& processes;
    bool ending = false;
    std::map<std::uint32_t, std::unique_ptr<Child>> children;  // by program
    std::map<std::uint32_t, Restart> restarts;                 // of commands that run with the router
    std::set<std::uint32_t> coming;                            // units that were asked for, by program
    tk::Timer<Activation, &Activation::askAgain> askingAgain{*this};
};

}  // namespace router
