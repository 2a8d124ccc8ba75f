// The configuration changes while the router runs.

#include "router/router.h"

#include <errno.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tk/log.h"

namespace router {

namespace {

sigset_t hangups() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    return set;
}

std::string listOf(const std::vector<std::string>& sections) {
    std::string text;
    for (const std::string& section : sections) text += (text.empty() ? "" : ", ") + section;
    return text.empty() ? "nothing has changed" : "changed: " + text;
}

/// True when one of the users may be the programs of `runner`, which is one user with one program.
bool has(const std::vector<hub::UserRights>& users, const hub::UserRights& runner) {
    return std::any_of(users.begin(), users.end(), [&runner](const hub::UserRights& each) {
        return each.uid == runner.uid && std::find(each.programs.begin(), each.programs.end(),
                                                   runner.programs.front()) != each.programs.end();
    });
}

}  // namespace

void Router::holdHangups() {
    const sigset_t set = hangups();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

tk::Status Router::watchHangups() {
    const sigset_t set = hangups();
    hangup.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!hangup.isOpen()) return tk::Status::ofErrno("SIGHUP", errno);
    hangupWatch.start<Router, &Router::hungUp>(hangup.get(), *this, tk::readable);
    return {};
}

void Router::hungUp(int fd, std::uint32_t) {
    signalfd_siginfo info{};
    if (::read(fd, &info, sizeof info) != sizeof info) return;
    (void)reload("SIGHUP");  // which logs the outcome; nobody waits for it
}

tk::Result<std::vector<std::string>> Router::reload(const std::string& asker) {
    tk::Result<std::vector<std::string>> changed = readAgain();
    const std::string who = " (asked by " + asker + ")";
    if (changed.isOk())
        tk::log("routerd: read ", file.name(), " again: ", listOf(*changed), who);
    else
        tk::log("routerd: nothing has changed: ", changed.reason(), who);
    return changed;
}

tk::Result<std::vector<std::string>> Router::readAgain() {
    reviewRunners();
    tk::Result<Config> read = file.readAgain();
    if (!read.isOk()) return read.status();
    std::vector<std::string> changed = changedSections(config, *read);
    if (!changed.empty())
        if (const tk::Status done = follow(read.take()); !done.isOk()) return done;
    return changed;
}

/// Puts another configuration into force: first what can fail, each so that it changes nothing if it does.
tk::Status Router::follow(Config next) {
    const std::vector<hub::ProgramConfig> commands = commandsIn(next);
    const bool startsOthers = commands != commandsIn(config);
    if (startsOthers)
        if (tk::Status prepared = processes.prepare(commands); !prepared.isOk()) return prepared;
    if (!next.lan.interfaces)
        if (tk::Status followed = monitor.followRoutes(); !followed.isOk()) return followed;
    if (tk::Status changed = table.setGuard(next.guard); !changed.isOk()) return changed;
    if (startsOthers) processes.adopt();
    // Whoever is inside before and after must not be cut off in between.
    if (!next.nat.checksTargets) table.setChecksTargets(false);
    zones.setConfig(next.lan);
    table.setChecksTargets(next.nat.checksTargets);
    policy.setConfig(next.nat);
    ports.setConfigured(next.nat.routerPorts);
    linkSwitch.setConfig(next.interfaces);
    keepRunners(next);
    config = std::move(next);
    setRights();
    activation.setConfig(config.programs);
    return {};
}

void Router::programComes(std::uint32_t program, uid_t user) {
    guard.programComes(program, user);
}

void Router::programLeft() {
    reviewRunners();
}

/// True when the user is the program, or a process of that user was started as it.
bool Router::runs(const hub::UserRights& runner) const {
    const std::uint32_t program = runner.programs.front();
    return hub.userOf(program) == runner.uid || activation.runsAs(program, runner.uid);
}

/// Whoever runs a program goes on with it, even if the configuration names another user now, or nobody.
void Router::keepRunners(const Config& next) {
    formerRunners.insert(formerRunners.end(), config.runners.begin(), config.runners.end());
    std::vector<hub::UserRights> kept;
    for (const hub::UserRights& runner : formerRunners)
        if (runs(runner) && !has(next.runners, runner) && !has(kept, runner)) kept.push_back(runner);
    formerRunners = std::move(kept);
}

/// Takes from former runners whose program has ended the right to be it.
void Router::reviewRunners() {
    if (std::erase_if(formerRunners, [this](const auto& runner) { return !runs(runner); }) != 0) setRights();
}

void Router::setRights() {
    std::vector<hub::UserRights> rights = config.users;
    for (const auto* runners : {&config.runners, &formerRunners})
        rights.insert(rights.end(), runners->begin(), runners->end());
    guard.setUsers(rights);  // first: nobody becomes the daemon unguarded
    hub.setAccess(hub::Access(rights));
}

}  // namespace router
