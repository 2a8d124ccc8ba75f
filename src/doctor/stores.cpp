#include <algorithm>
#include <string>

#include "contract/programs.h"
#include "doctor/judgements.h"

namespace doctor {

namespace {

constexpr std::uint64_t leastRoom = std::uint64_t{1024} * 1024;
constexpr std::int64_t tolerance = 3600;  // s, for clocks that are set while files are written

/// Why a program cannot store there; empty when it can.
std::string obstacle(const Facts& facts, const StoreFact& store) {
    // Without a package's rules, each program makes its own at its start.
    if (!store.exists)
        return facts.machine.hasFolderRules || facts.program(store.program) ? "is not there" : "";
    if (store.isReadOnly) return "is on a file system that is read-only";
    if (store.freeBytes < leastRoom) return "is on a full file system";
    const ProgramFact* program = facts.program(store.program);
    if (!program || program->user == 0) return {};
    if (store.owner != program->user) return "does not belong to the program's user";
    return store.ownerMayWrite ? "" : "is closed to its own owner";
}

/// A program that started without its store has to be started again, for its sandbox has no such folder.
std::vector<std::string> makeStore(const Facts& facts, const StoreFact& store) {
    const ProgramFact* program = facts.program(store.program);
    if (facts.machine.hasFolderRules)
        return {"systemd-tmpfiles --create gateway.conf", store.program == contract::program::network
                                                              ? "systemctl restart routerd"
                                                              : "systemctl restart upnpd"};
    return {"mkdir -p " + store.folder,
            "chown " + std::to_string(program ? program->user : 0) + ' ' + store.folder};
}

std::vector<std::string> mendStore(const Facts& facts, const StoreFact& store) {
    const ProgramFact* program = facts.program(store.program);
    if (!store.exists) return makeStore(facts, store);
    if (store.isReadOnly)
        return {"mount -o remount,rw \"$(findmnt -no TARGET --target " + store.folder + ")\""};
    if (store.freeBytes < leastRoom) return {"# make room: df " + store.folder};
    return {"chown -R " + std::to_string(program ? program->user : 0) + ' ' + store.folder,
            "chmod u+rwx " + store.folder};
}

void judgeStore(const Facts& facts, const StoreFact& store, Findings& findings) {
    if (const std::string what = obstacle(facts, store); !what.empty())
        findings.push_back({"store-closed", Severity::warning, store.folder, store.folder + ' ' + what + '.',
                            "Changes of the settings and roles are refused or lost.",
                            mendStore(facts, store)});
    for (const std::string& file : store.damaged)
        findings.push_back(
            {"store-damaged",
             Severity::warning,
             file,
             file + " is damaged and was kept aside.",
             "What it held is not in force: roles, settings or ids may have to be given again.",
             {"tkctl upnp interface list", "# give again what is missing; then:", "rm " + file}});
}

void judgeClock(const MachineFacts& machine, Findings& findings) {
    std::int64_t latest = machine.builtAfter;
    for (const StoreFact& store : machine.stores) latest = std::max(latest, store.newest);
    if (machine.now + tolerance >= latest) return;
    findings.push_back(
        {"clock-wrong",
         Severity::warning,
         "clock",
         "The clock is behind: files are newer than it.",
         "The times of mappings, of the log and of the history are wrong.",
         {"timedatectl set-ntp true", "# without systemd: set it with date, and run an NTP client"}});
}

}  // namespace

void judgeStores(const Facts& facts, Findings& findings) {
    for (const StoreFact& store : facts.machine.stores) judgeStore(facts, store, findings);
    judgeClock(facts.machine, findings);
}

}  // namespace doctor
