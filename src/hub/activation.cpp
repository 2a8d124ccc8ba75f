#include "hub/activation.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <utility>

#include "tk/log.h"

namespace router {

namespace {

constexpr int killMilliseconds = 1000;  // for a killed process to be gone

}  // namespace

Activation::Child::Child(Activation& activation, std::uint32_t program, pid_t pid, tk::Fd opened)
    : activation(activation), program(program), pid(pid), process(std::move(opened)) {
    watch.start<Child, &Child::ended>(process.get(), *this, tk::readable);
}

void Activation::Child::ended(int, std::uint32_t) {
    activation.reap(program);  // destroys this child: nothing may follow
}

Activation::Activation(const std::vector<ProgramConfig>& configured, Owner& owner, Processes& processes)
    : owner(owner), processes(processes) {
    for (const ProgramConfig& program : configured) {
        const std::uint32_t number = program.number;
        programs[number] = program;
        if (program.startsWithRouter && program.unit.empty())
            restarts.try_emplace(number, [this, number] { startOrRetry(number); });
    }
}

Activation::~Activation() {
    for (const auto& [program, child] : children) {
        processes.signal(child->pid, SIGKILL);
        pollfd ended{child->process.get(), POLLIN, 0};
        (void)::poll(&ended, 1, killMilliseconds);
        int status = 0;
        (void)processes.reap(child->pid, status);  // nobody is left to be told of it
    }
}

bool Activation::start(std::uint32_t program, std::string& reason) {
    const auto config = programs.find(program);
    if (config == programs.end()) return false;
    if (ending) {
        reason = "the router is ending";
        return false;
    }
    if (children.contains(program) || coming.contains(program)) return true;
    if (!launch(config->second, reason)) return false;
    const bool isUnit = !config->second.unit.empty();
    tk::log("program ", program, " started: ", isUnit ? config->second.unit : config->second.command.front());
    return true;
}

bool Activation::launch(const ProgramConfig& program, std::string& reason) {
    tk::Fd process;
    const pid_t pid = processes.start(program, process, reason);
    if (pid < 0) return false;
    children[program.number] = std::make_unique<Child>(*this, program.number, pid, std::move(process));
    return true;
}

void Activation::registered(std::uint32_t program) {
    if (const auto child = children.find(program); child != children.end())
        child->second->hasRegistered = true;
    coming.erase(program);
}

void Activation::startConfigured() {
    for (const auto& [number, program] : programs)
        if (program.startsWithRouter) startOrRetry(number);
}

void Activation::endAll() {
    ending = true;
    for (auto& [program, pending] : restarts) pending.cancel();
    for (const auto& [program, child] : children) processes.signal(child->pid, SIGTERM);
}

void Activation::reap(std::uint32_t program) {
    const auto child = children.find(program);
    int status = 0;
    if (!processes.reap(child->second->pid, status)) return;
    const bool hadRegistered = child->second->hasRegistered;
    children.erase(child);
    if (const ProgramConfig& config = programs[program]; !config.unit.empty())
        return unitAsked(config, status);
    const std::string how = endText(status);
    tk::log("program ", program, " ", how);
    owner.programEnded(program, how, hadRegistered);
    const auto pending = restarts.find(program);
    if (ending || pending == restarts.end()) return;
    if (status == 0)
        pending->second.cancel();
    else
        pending->second.crashed(hadRegistered);
}

void Activation::startOrRetry(std::uint32_t program) {
    std::string reason;
    if (start(program, reason)) return;  // or somebody's message has started it meanwhile
    tk::log("program ", program, " cannot be started: ", reason);
    if (const auto pending = restarts.find(program); pending != restarts.end())
        pending->second.crashed(false);
}

/// systemd has taken the unit on, or not. Its program comes to the bus later, or has done so meanwhile.
void Activation::unitAsked(const ProgramConfig& program, int status) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        if (!owner.isAwaited(program.number)) return;
        if (coming.empty()) askingAgain.arm(askAgainTicks);
        coming.insert(program.number);
        return;
    }
    const std::string reason = program.unit + " could not be started: systemctl " + endText(status);
    tk::log("program ", program.number, ": ", reason);
    owner.startFailed(program.number, reason);
}

void Activation::askAgain() {
    for (const std::uint32_t program : std::exchange(coming, {})) {
        std::string reason;
        if (!ending && owner.isAwaited(program) && !launch(programs[program], reason))
            owner.startFailed(program, reason);
    }
}

}  // namespace router
