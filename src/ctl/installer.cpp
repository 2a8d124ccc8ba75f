#include "ctl/installer.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "contract/gateway.h"
#include "contract/interfaces.h"
#include "contract/programs.h"
#include "ctl/configcheck.h"
#include "ctl/failure.h"
#include "ctl/interfaces.h"
#include "ctl/startadvice.h"
#include "machine/tool.h"
#include "tk/file.h"
#include "tk/names.h"

namespace ctl {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr mode_t usualMode = 0644;
constexpr auto patience = 10s;
constexpr auto pause = 50ms;
constexpr machine::ToolLimits unitLimits{.milliseconds = 90000};

/// Waits until the condition holds.
/// Errors: false when it did not in time.
template <typename Condition>
bool becomesTrue(const Condition& condition) {
    for (const Clock::time_point end = Clock::now() + patience; Clock::now() < end;) {
        if (condition()) return true;
        std::this_thread::sleep_for(pause);
    }
    return condition();
}

void check(const tk::Status& status) {
    if (!status.isOk()) throw Failure(status.reason());
}

enum class Judge { nobody, router };

/// Replaces a file at once; it keeps its owner and mode, and links lead where they led.
/// Errors: throws Failure, also when the judge refuses it; nothing has changed then.
void writeFile(const std::string& file, const std::string& text, Judge judge) {
    std::error_code unknown;
    const std::filesystem::path real = std::filesystem::weakly_canonical(file, unknown);
    if (unknown) throw Failure(file + ": " + unknown.message());
    const std::string path = real.string();
    struct stat present {};
    const bool exists = ::stat(path.c_str(), &present) == 0;
    if (!exists && errno != ENOENT) throw Failure(tk::Status::ofErrno(path, errno).reason());
    std::error_code ignored;  // writing says what is wrong
    std::filesystem::create_directories(real.parent_path(), ignored);
    const std::string fresh = path + ".new";
    check(tk::writeSynced(fresh, text));
    const bool isOwned = !exists || ::chown(fresh.c_str(), present.st_uid, present.st_gid) == 0;
    std::string fault;
    if (!isOwned || ::chmod(fresh.c_str(), exists ? present.st_mode & 07777 : usualMode) != 0)
        fault = tk::Status::ofErrno(fresh, errno).reason();
    else if (judge == Judge::router)
        fault = refusalOf(fresh, file);
    if (fault.empty()) fault = tk::replaceSynced(fresh, path).reason();
    if (fault.empty()) return;
    ::unlink(fresh.c_str());
    throw Failure(fault);
}

std::uint32_t idOf(Session& session, const std::string& interface) {
    return interfaceNamed(readInterfaces(session), interface).id;
}

void change(Session& session, const setup::ItemChange& change) {
    using Kind = setup::ItemChange::Kind;
    tk::message item;
    if (change.kind == Kind::add) {
        item = contract::RoleItem{idOf(session, change.interface), change.role, false}.toMessage();
        session.request(contract::path::gateway(), tk::command::addObject, item);
        return;
    }
    item.insert_u32(tk::field::objectId, change.id);
    if (change.kind == Kind::change)
        item.insert_u32(contract::itemfield::type, static_cast<std::uint32_t>(change.role));
    session.request(contract::path::gateway(),
                    change.kind == Kind::change ? tk::command::setObject : tk::command::removeObject, item);
}

}  // namespace

void Installer::apply(const SetupPlan& plan) {
    try {
        changeFile(plan);
        if (plan.isRunning) readAgain(plan);
        if (!plan.isRunning) startRouter();
        // A gateway that was not there before has told its items to nobody yet.
        const SetupPlan now = plan.knowsItems ? plan : planSetup(context, options, Wait::start);
        if (!now.knowsItems) throw Failure(now.silence);
        give(now.changes);
        if (!now.isEnabled) switchOn();
        waitUntilInside(now.proposal);
    } catch (const Failure& failure) {
        throw Failure(explain(failure.what()), failure.status);
    }
}

std::string Installer::explain(const std::string& reason) const {
    std::string steps;
    for (const std::string& step : done) steps += (steps.empty() ? "" : ", ") + step;
    return reason + (done.empty() ? "; nothing has been changed"
                                  : "; done so far: " + steps + "; the rest is not done");
}

void Installer::changeFile(const SetupPlan& plan) {
    if (plan.before == plan.after) return;
    writeFile(options.file, plan.after, Judge::router);
    done.push_back(options.file + " is written");
}

/// Also when setup changes nothing in the file: somebody else may have done so.
void Installer::readAgain(const SetupPlan& plan) {
    try {
        context.session().request(contract::path::hub(), tk::command::hubReload);
    } catch (const Failure& failure) {
        if (plan.before == plan.after) throw;
        putBack(plan);
        throw Failure("routerd refuses the new file, so the old one is back: " + std::string(failure.what()));
    }
    if (!done.empty()) done.emplace_back("routerd has read it");
}

void Installer::putBack(const SetupPlan& plan) {
    if (plan.fileExists)
        writeFile(options.file, plan.before, Judge::nobody);
    else if (::unlink(options.file.c_str()) != 0)
        check(tk::Status::ofErrno(options.file, errno));
    done.clear();
}

void Installer::startRouter() {
    const std::string words = options.file == contract::usualConfiguration
                                  ? ""
                                  : "--config " + std::filesystem::absolute(options.file).string();
    if (!machine::hasSystemd())
        throw Failure("routerd is not running, and there is no systemd to start it; run \"" +
                      startLine("routerd", words) + "\" and then tkctl setup again");
    const auto started = machine::outputOf({"systemctl", "enable", "--now", routerUnit}, unitLimits);
    if (!started.isOk()) throw Failure(started.reason() + "; journalctl -u " + routerUnit + " tells more");
    if (!becomesTrue([this] { return isRouterRunning(context); }))
        throw Failure(std::string(routerUnit) + " was started, but does not serve the bus; journalctl -u " +
                      routerUnit + " tells more");
    done.emplace_back("routerd is started");
}

void Installer::give(const std::vector<setup::ItemChange>& changes) {
    for (const setup::ItemChange& wanted : changes) {
        change(context.session(), wanted);
        done.push_back(setup::describe(wanted));
    }
}

void Installer::switchOn() {
    Session& session = context.session();
    // The message replaces all settings, so it must hold the unchanged ones too.
    auto settings =
        contract::Settings::fromMessage(session.request(contract::path::gateway(), tk::command::get), {});
    settings.enabled = true;
    session.request(contract::path::gateway(), tk::command::set, settings.toMessage());
    done.emplace_back("UPnP is switched on");
}

/// Roles are in force when their requests are answered; it is for routerd to see the LAN as one.
void Installer::waitUntilInside(const setup::Proposal& proposal) {
    for (const setup::Choice& choice : proposal.roles) {
        if (choice.role != setup::Role::internal) continue;
        contract::SideReply told;
        const bool isInside = becomesTrue([&] {
            told = sideOf(context.session(), idOf(context.session(), choice.interface));
            return told.side == contract::Side::inside;
        });
        if (!isInside) throw Failure(choice.interface + " does not count as inside: " + told.why);
    }
}

}  // namespace ctl
