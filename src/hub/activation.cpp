#include "hub/activation.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "tk/log.h"

namespace hub {

namespace {

constexpr int killMilliseconds = 1000;  // until a killed process is gone

/// What starts the program, for people.
const std::string& wayOf(const ProgramConfig& program) {
    if (!program.trigger.empty()) return program.trigger;
    return program.unit.empty() ? program.command.front() : program.unit;
}

}  // namespace

void Restart::crashed(bool hadRegistered) {
    if (hadRegistered) nextTicks = firstTicks;
    timer.arm(nextTicks);
    nextTicks = std::min(2 * nextTicks, mostTicks);
}

Activation::Child::Child(Activation& activation, ProgramConfig program, Started started)
    : activation(activation),
      program(std::move(program)),
      pid(started.pid),
      process(std::move(started.process)) {
    watch.start<Child, &Child::ended>(process.get(), *this, tk::readable);
}

void Activation::Child::ended(int, std::uint32_t) {
    activation.reap(program.number);  // destroys this child: nothing may follow
}

Activation::Activation(const std::vector<ProgramConfig>& configured, Hub& hub, Processes& processes)
    : hub(hub), processes(processes) {
    take(configured);
    hub.setStarter(this);
}

void Activation::take(const std::vector<ProgramConfig>& configured) {
    programs.clear();
    for (const ProgramConfig& program : configured) programs[program.number] = program;
    std::erase_if(restarts, [this](const auto& entry) { return !comesBack(entry.first); });
    for (const auto& [each, program] : programs)
        if (comesBack(each)) restarts.try_emplace(each, [this, number = each] { startOrRetry(number); });
}

/// True for a command that is started again after a crash, and for a trigger that is pulled until its program
/// comes.
bool Activation::comesBack(std::uint32_t program) const {
    const auto config = programs.find(program);
    return config != programs.end() && config->second.startsWithRouter && config->second.unit.empty();
}

void Activation::setConfig(const std::vector<ProgramConfig>& configured) {
    std::vector<std::uint32_t> others;
    for (const ProgramConfig& program : configured)
        if (const auto before = programs.find(program.number);
            before == programs.end() || before->second != program)
            others.push_back(program.number);
    for (const std::uint32_t program : others) restarts.erase(program);
    take(configured);
    for (const std::uint32_t program : others) follow(program);
}

/// Does what another configuration of a program asks for. How the former one was started says nothing of it.
void Activation::follow(std::uint32_t program) {
    coming.erase(program);
    if (hub.userOf(program)) return;
    if (programs[program].startsWithRouter) return startOrRetry(program);
    if (!hub.awaits(program)) return;
    if (const tk::Status started = start(program); !started.isOk())
        hub.programFailed(program, started.reason());
}

Activation::~Activation() {
    hub.setStarter(nullptr);
    for (const auto& [program, child] : children) {
        processes.signal(child->pid, SIGKILL);
        pollfd ended{child->process.get(), POLLIN, 0};
        (void)::poll(&ended, 1, killMilliseconds);
        (void)processes.reap(child->pid);  // nobody is left to be told of it
    }
}

tk::Status Activation::start(std::uint32_t program) {
    const auto config = programs.find(program);
    if (config == programs.end()) return tk::Status::failure(Hub::nobodyThere);
    if (ending) return tk::Status::failure("the router is ending");
    if (children.contains(program) || coming.contains(program)) return {};
    if (tk::Status launched = launch(config->second); !launched.isOk()) return launched;
    const bool isOnlyAsked = !config->second.trigger.empty();
    tk::log("program ", program, isOnlyAsked ? " asked for: " : " started: ", wayOf(config->second));
    return {};
}

tk::Status Activation::launch(const ProgramConfig& program) {
    if (!program.trigger.empty()) {
        if (tk::Status pulled = pullTrigger(program.trigger); !pulled.isOk()) return pulled;
        expect(program.number);
        return {};
    }
    tk::Result<Started> started = processes.start(program);
    if (!started.isOk()) return started.status();
    children[program.number] = std::make_unique<Child>(*this, program, started.take());
    return {};
}

void Activation::registered(std::uint32_t program) {
    if (const auto child = children.find(program); child != children.end())
        child->second->hasRegistered = true;
    coming.erase(program);
    const auto pending = restarts.find(program);
    if (pending != restarts.end() && !programs[program].trigger.empty()) pending->second.cancel();
}

void Activation::startConfigured() {
    for (const auto& [number, program] : programs)
        if (program.startsWithRouter) startOrRetry(number);
}

bool Activation::runsAs(std::uint32_t program, uid_t user) const {
    const auto child = children.find(program);
    if (child == children.end() || child->second->program.isManaged()) return false;
    const std::optional<tk::Account>& account = child->second->program.user;
    return (account ? account->uid : ::geteuid()) == user;
}

void Activation::endAll() {
    ending = true;
    for (auto& [program, pending] : restarts) pending.cancel();
    for (const auto& [program, child] : children) processes.signal(child->pid, SIGTERM);
}

void Activation::reap(std::uint32_t program) {
    const auto child = children.find(program);
    const std::optional<int> status = processes.reap(child->second->pid);
    if (!status) return;
    const bool hadRegistered = child->second->hasRegistered;
    const ProgramConfig config = child->second->program;
    children.erase(child);
    endWatcher();
    if (!config.unit.empty()) return unitAsked(config, *status);
    const std::string how = endText(*status);
    tk::log("program ", program, " ", how);
    programEnded(program, how, hadRegistered);
    const auto pending = restarts.find(program);
    if (ending || pending == restarts.end()) return;
    if (*status == 0)
        pending->second.cancel();
    else
        pending->second.crashed(hadRegistered);
}

/// Ends the requests that wait for a program that did not come. One that left of its own accord is started
/// again for the requests that arrived after it had left the bus.
void Activation::programEnded(std::uint32_t program, const std::string& how, bool hadRegistered) {
    tk::Status missing = tk::Status::failure("the program " + how + " before it came to the bus");
    if (hadRegistered && hub.awaits(program)) missing = start(program);
    if (!missing.isOk()) hub.programFailed(program, missing.reason());
}

void Activation::startOrRetry(std::uint32_t program) {
    const tk::Status started = start(program);
    if (!started.isOk()) tk::log("program ", program, " cannot be started: ", started.reason());
    const bool isKnownToStart = started.isOk() && programs[program].trigger.empty();
    if (isKnownToStart) return;  // or a message had started it already
    if (const auto pending = restarts.find(program); pending != restarts.end())
        pending->second.crashed(false);
}

/// systemd has accepted the unit, or not. Its program comes to the bus later, or has come already.
void Activation::unitAsked(const ProgramConfig& program, int status) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        if (hub.awaits(program.number)) expect(program.number);
        return;
    }
    const std::string reason = program.unit + " could not be started: systemctl " + endText(status);
    tk::log("program ", program.number, ": ", reason);
    hub.programFailed(program.number, reason);
}

/// The program has been asked for, and comes to the bus unless nobody listened.
void Activation::expect(std::uint32_t program) {
    if (coming.empty()) askingAgain.arm(askAgainTicks);
    coming.insert(program);
}

void Activation::askAgain() {
    for (const std::uint32_t program : std::exchange(coming, {})) {
        if (ending || !hub.awaits(program)) continue;
        const auto config = programs.find(program);
        const tk::Status launched =
            config == programs.end() ? tk::Status::failure(Hub::nobodyThere) : launch(config->second);
        if (!launched.isOk()) hub.programFailed(program, launched.reason());
    }
}

}  // namespace hub
