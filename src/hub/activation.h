#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hub/hub.h"
#include "hub/processes.h"
#include "tk/fd.h"
#include "tk/status.h"
#include "tk/timer.h"

namespace hub {

/// Decides when a crashed program is started again: after a second if it had come to the bus, else after
/// twice the previous wait, up to about a minute.
class Restart {
public:
    /// The first wait and the longest.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t firstTicks = 100;
    static constexpr std::uint32_t mostTicks = 6400;

    /// `start` is called when the time has come.
    explicit Restart(std::function<void()> start) : start(std::move(start)) {}

    /// The program has crashed, or could not be started.
    void crashed(bool hadRegistered);
    /// The program is not to be started any more.
    void cancel() { timer.disarm(); }

private:
    void due() { start(); }

    std::function<void()> start;
    std::uint32_t nextTicks = firstTicks;
    tk::Timer<Restart, &Restart::due> timer{*this};
};

/// Starts the programs of the configuration when the hub asks for them or the router starts, restarts them
/// after a crash, and ends them with the router.
/// A unit belongs to systemd: a command asks for it, and the command's success is not the program's end.
/// Until its process has ended, systemd considers a unit running even if the program has left the bus. So it
/// is asked again, each second, for a program that is awaited and does not come. A trigger asks likewise, but
/// nobody tells whether it was heard: for a program that runs with the router it is pulled until that comes.
///
/// A command that runs with the router is restarted after a crash. One that left with status 0 meant to; the
/// next message for it starts it.
class Activation final : public Starter {
public:
    /// Starts from now on what the hub asks for.
    /// Lifetime: hub and processes outlive the object.
    Activation(const std::vector<ProgramConfig>& configured, Hub& hub, Processes& processes);
    Activation(const Activation&) = delete;
    Activation& operator=(const Activation&) = delete;
    /// Kills whatever still runs.
    ~Activation() override;

    /// Starts these programs from now on, and at once those that run with the router and were not configured
    /// in just this way before. What runs goes on, even if it is not among them.
    void setConfig(const std::vector<ProgramConfig>& configured);

    tk::Status start(std::uint32_t program) override;
    void registered(std::uint32_t program) override;
    /// Starts what runs from the beginning. A failure is logged, and a command is tried again.
    void startConfigured();
    /// Asks every started program to end, and starts no more. Managed ones are left to their manager.
    void endAll();
    /// True while a started program has not ended.
    bool isRunning() const { return !children.empty(); }
    /// True while a process that was started as this program runs as `user`. One that asks for a unit does not
    /// count.
    [[nodiscard]] bool runsAs(std::uint32_t program, uid_t user) const;
    /// Sets whom to tell when a process that was started has ended, before another may be started.
    void setEndWatcher(std::function<void()> watcher) { endWatcher = std::move(watcher); }

private:
    /// A running program, or the command that asks for one: its own process group, watched through a
    /// descriptor of the process.
    struct Child {
        Child(Activation& activation, ProgramConfig program, Started started);
        void ended(int fd, std::uint32_t events);

        Activation& activation;
        const ProgramConfig program;  // as it was when it was started
        pid_t pid;
        bool hasRegistered = false;
        tk::Fd process;
        tk::Watch watch;
    };

    /// How long a managed program may take to come to the bus before it is asked for again.
    static constexpr std::uint32_t askAgainTicks = 100;  // 1 s

    void take(const std::vector<ProgramConfig>& configured);
    void follow(std::uint32_t program);
    [[nodiscard]] bool comesBack(std::uint32_t program) const;
    tk::Status launch(const ProgramConfig& program);
    void reap(std::uint32_t program);
    void startOrRetry(std::uint32_t program);
    void programEnded(std::uint32_t program, const std::string& how, bool hadRegistered);
    void unitAsked(const ProgramConfig& program, int status);
    void expect(std::uint32_t program);
    void askAgain();

    std::map<std::uint32_t, ProgramConfig> programs;
    Hub& hub;
    Processes& processes;
    std::function<void()> endWatcher = [] {};
    bool ending = false;
    std::map<std::uint32_t, std::unique_ptr<Child>> children;  // by program
    std::map<std::uint32_t, Restart> restarts;                 // commands and triggers run with the router
    std::set<std::uint32_t> coming;                            // managed programs asked for
    tk::Timer<Activation, &Activation::askAgain> askingAgain{*this};
};

}  // namespace hub
