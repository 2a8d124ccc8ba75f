#include "router/activation.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <utility>

#include "tk/log.h"

namespace router {

namespace {

constexpr int killMilliseconds = 1000;  // for a killed process to be gone

/// How a process ended, as text.
std::string describe(int status) {
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

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
    for (const ProgramConfig& program : configured) programs[program.number] = program;
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
    if (children.contains(program)) return true;
    tk::Fd process;
    const pid_t pid = processes.start(config->second, process, reason);
    if (pid < 0) return false;
    tk::log("program ", program, " started: ", config->second.command.front());
    children[program] = std::make_unique<Child>(*this, program, pid, std::move(process));
    return true;
}

void Activation::registered(std::uint32_t program) {
    if (const auto child = children.find(program); child != children.end())
        child->second->hasRegistered = true;
}

void Activation::startConfigured() {
    for (const auto& [number, program] : programs) {
        std::string reason;
        if (program.startsWithRouter && !start(number, reason))
            tk::log("program ", number, " cannot be started: ", reason);
    }
}

void Activation::endAll() {
    ending = true;
    for (const auto& [program, child] : children) processes.signal(child->pid, SIGTERM);
}

void Activation::reap(std::uint32_t program) {
    const auto child = children.find(program);
    int status = 0;
    if (!processes.reap(child->second->pid, status)) return;
    const bool hadRegistered = child->second->hasRegistered;
    children.erase(child);
    const std::string how = describe(status);
    tk::log("program ", program, " ", how);
    owner.programEnded(program, how, hadRegistered);
}

}  // namespace router
