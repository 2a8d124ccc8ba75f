#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hub/processes.h"
#include "hub/refusallog.h"
#include "links/kernel.h"
#include "tk/fd.h"
#include "tk/message.h"
#include "tk/timer.h"

namespace links {

/// What the configuration says about setting one interface up and down over the bus. A value.
struct InterfaceConfig {
    std::string name;
    bool terminate = false;  // true when programs may do so, too
    // The commands for it: a full path, then arguments. Empty: the kernel's flag is set.
    std::vector<std::string> down;
    std::vector<std::string> up;

    bool operator==(const InterfaceConfig&) const = default;
};

/// The commands that set interfaces up and down, in the form in which processes are started. The process that
/// starts them for the router has to know them beforehand. They run as its user, not as the router's.
[[nodiscard]] std::vector<hub::ProgramConfig> stateCommands(const std::vector<InterfaceConfig>& interfaces);

/// Sets interfaces up and down for others: only for root unless the configuration says otherwise, by the
/// kernel's flag or by the configured command. Logs each request and its outcome.
class LinkSwitch final {
public:
    /// How long a command may take before its requester, who still waits then, is told that it goes on.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t answerTicks = 500;
    /// How long a command may take before it is killed.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t killTicks = 6000;

    /// Called once with an empty message, or with the error that says why it was not done.
    using Done = std::function<void(tk::message)>;

    /// Lifetime: kernel, processes and a loop outlive the object.
    LinkSwitch(std::vector<InterfaceConfig> interfaces, Kernel& kernel, hub::Processes& processes);
    LinkSwitch(const LinkSwitch&) = delete;
    LinkSwitch& operator=(const LinkSwitch&) = delete;
    /// Lets a command that still runs go on.
    ~LinkSwitch();

    /// Follows this configuration from now on. A command that runs goes on.
    void setConfig(std::vector<InterfaceConfig> configured);

    /// Sets an interface up or down for a user, and returns the outcome as `done` would get it. Returns
    /// nothing when it takes longer: `done` is then called at the end.
    [[nodiscard]] std::optional<tk::message> set(const Link& link, bool up, uid_t user, const Done& done);

private:
    /// A running command.
    struct Run {
        Run(LinkSwitch& owner, std::string name, std::string command, pid_t pid, tk::Fd opened, Done done);
        void ended(int fd, std::uint32_t events);
        void late();

        LinkSwitch& owner;
        std::string name;     // of the interface
        std::string command;  // its path
        pid_t pid;
        Done done;  // null once told that it takes longer
        tk::Fd process;
        tk::Watch watch;
        tk::Timer<Run, &Run::late> patience{*this};
    };

    [[nodiscard]] tk::message setFlag(const Link& link, bool up, const std::string& event);
    [[nodiscard]] tk::message start(const Link& link, const hub::ProgramConfig& command,
                                    const std::string& event, const Done& done);
    void reap(const std::string& name);

    std::vector<InterfaceConfig> interfaces;
    std::vector<hub::ProgramConfig> commands;
    Kernel& kernel;
    hub::Processes& processes;
    hub::RefusalLog refusals{"interfaces", "requests refused"};
    std::map<std::string, std::unique_ptr<Run>> runs;  // by interface
};

}  // namespace links
