#include "links/linkswitch.h"

#include <signal.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "tk/answer.h"
#include "tk/log.h"
#include "tk/names.h"

namespace links {

namespace {

constexpr uid_t root = 0;
constexpr std::uint32_t firstNumber = 1U << 16;  // no program has such a number

/// The number under which the command of the interface at this place is started.
std::uint32_t numberOf(std::size_t place, bool up) {
    return firstNumber + 2 * static_cast<std::uint32_t>(place) + (up ? 1 : 0);
}

}  // namespace

std::vector<hub::ProgramConfig> stateCommands(const std::vector<InterfaceConfig>& interfaces) {
    std::vector<hub::ProgramConfig> commands;
    for (std::size_t place = 0; place < interfaces.size(); ++place) {
        commands.push_back({numberOf(place, false), interfaces[place].down});
        commands.push_back({numberOf(place, true), interfaces[place].up});
    }
    return commands;
}

LinkSwitch::Run::Run(LinkSwitch& owner, std::string name, std::string command, pid_t pid, tk::Fd opened,
                     Done done)
    : owner(owner),
      name(std::move(name)),
      command(std::move(command)),
      pid(pid),
      done(std::move(done)),
      process(std::move(opened)) {
    watch.start<Run, &Run::ended>(process.get(), *this, tk::readable);
    patience.arm(answerTicks);
}

void LinkSwitch::Run::ended(int, std::uint32_t) {
    owner.reap(name);  // destroys this object: nothing may follow
}

void LinkSwitch::Run::late() {
    if (!done) return owner.processes.signal(pid, SIGKILL);
    patience.arm(killTicks - answerTicks);
    std::exchange(done, nullptr)(tk::errorMsg(tk::error::failed, command + " still runs"));
}

LinkSwitch::LinkSwitch(std::vector<InterfaceConfig> configured, Kernel& kernel, hub::Processes& processes)
    : kernel(kernel), processes(processes) {
    setConfig(std::move(configured));
}

void LinkSwitch::setConfig(std::vector<InterfaceConfig> configured) {
    interfaces = std::move(configured);
    commands = stateCommands(interfaces);
}

LinkSwitch::~LinkSwitch() {
    refusals.close();
}

std::optional<tk::message> LinkSwitch::set(const Link& link, bool up, uid_t user, const Done& done) {
    const auto config = std::find_if(interfaces.begin(), interfaces.end(),
                                     [&link](const InterfaceConfig& each) { return each.name == link.name; });
    const bool isKnown = config != interfaces.end();
    const std::string wish = link.name + (up ? " up" : " down");
    if (user != root && !(isKnown && config->terminate)) {
        tk::message refusal =
            tk::errorMsg(tk::error::notAllowed, "user " + std::to_string(user) + " may not set " + wish +
                                                    ": no [[interface]] with terminate allows it");
        refusals.note("request of user " + std::to_string(user) + " refused", user, tk::getError(refusal));
        return refusal;
    }
    const std::string event = "interface " + wish + " for user " + std::to_string(user);
    const std::size_t place = static_cast<std::size_t>(config - interfaces.begin());
    const hub::ProgramConfig* command = isKnown ? &commands[2 * place + (up ? 1 : 0)] : nullptr;
    if (!command || command->command.empty()) return setFlag(link, up, event);
    tk::message started = start(link, *command, event, done);
    if (tk::isError(started)) return started;
    return std::nullopt;
}

tk::message LinkSwitch::setFlag(const Link& link, bool up, const std::string& event) {
    const tk::Status outcome = kernel.setLinkUp(link.index, up);
    tk::log(event, outcome.isOk() ? "" : ": ", outcome.reason());
    return tk::answerOf(outcome, tk::error::failed);
}

tk::message LinkSwitch::start(const Link& link, const hub::ProgramConfig& command, const std::string& event,
                              const Done& done) {
    if (const auto run = runs.find(link.name); run != runs.end())
        return tk::errorMsg(tk::error::busy, run->second->command + " still runs for " + link.name);
    const std::string& path = command.command.front();
    tk::Result<hub::Started> started = processes.start(command);
    if (!started.isOk()) {
        tk::log(event, ": ", started.reason());
        return tk::errorMsg(tk::error::failed, started.reason());
    }
    tk::log(event, ": ", path, " started");
    runs[link.name] =
        std::make_unique<Run>(*this, link.name, path, started->pid, std::move(started->process), done);
    return {};
}

void LinkSwitch::reap(const std::string& name) {
    const auto run = runs.find(name);
    const std::optional<int> status = processes.reap(run->second->pid);
    if (!status) return;
    const std::string text = run->second->command + " " + hub::endText(*status);
    tk::log("interface ", name, ": ", text);
    const Done done = std::move(run->second->done);
    runs.erase(run);
    if (done) done(*status == 0 ? tk::message() : tk::errorMsg(tk::error::failed, text));
}

}  // namespace links
