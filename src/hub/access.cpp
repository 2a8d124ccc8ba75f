#include "hub/access.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string>

#include "contract/history.h"
#include "contract/interfaces.h"
#include "contract/mappings.h"
#include "contract/natrules.h"
#include "contract/programs.h"
#include "contract/resolver.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {

namespace {

constexpr uid_t root = 0;

/// Who is asked what: a cell of the table. The numbers are wider than those of a message, which therefore
/// cannot name the marks below.
struct Cell {
    std::uint32_t program;
    std::uint64_t handler;
    std::uint64_t command;
};

constexpr std::uint64_t every = std::uint64_t{1} << 32;    // handler
constexpr std::uint64_t looking = std::uint64_t{1} << 32;  // commands that change nothing

// Commands that change nothing, whoever gets them.
constexpr std::uint32_t readings[] = {tk::command::getPolicies, tk::command::getObject, tk::command::getAll,
                                      tk::command::get, tk::command::getCount};

// Commands of single handlers that change nothing.
constexpr Cell ownReadings[] = {
    {contract::program::network, contract::handler::interfaces, contract::listInterfaces},
    {contract::program::network, contract::handler::interfaces, contract::tellSide},
    {contract::program::network, contract::handler::nat, contract::testRule},
    {contract::program::resolver, 0, contract::resolveName},
    {contract::program::gateway, contract::handler::mappings, contract::recentRefusals},
};

// The user of the gateway daemon. The handlers of rules and interfaces decide which rules are its own, and
// which interfaces may go down.
constexpr Cell ofGateway[] = {
    {contract::program::network, every, looking},
    {contract::program::identity, every, looking},
    {contract::program::resolver, every, looking},
    {contract::program::network, contract::handler::nat, tk::command::addObject},
    {contract::program::network, contract::handler::nat, tk::command::setObject},
    {contract::program::network, contract::handler::nat, tk::command::removeObject},
    {contract::program::network, contract::handler::interfaces, tk::command::setObject},
    {tk::program::history, 0, tk::command::addObject},
};

// Everybody else, except the resolver's user, which may do nothing.
constexpr Cell ofOthers[] = {
    {contract::program::network, every, looking},
    {tk::program::history, every, looking},
    {contract::program::identity, every, looking},
    {contract::program::gateway, every, looking},
};

/// The cell of a command to a handler; a path of one element means handler 0.
Cell cellOf(const tk::Path& path, std::uint32_t command) {
    return {path.front(), path.size() > 1 ? path[1] : 0, command};
}

bool isReading(const Cell& asked) {
    return std::find(std::begin(readings), std::end(readings), asked.command) != std::end(readings) ||
           std::any_of(std::begin(ownReadings), std::end(ownReadings), [&asked](const Cell& own) {
               return own.program == asked.program && own.handler == asked.handler &&
                      own.command == asked.command;
           });
}

bool isIn(std::span<const Cell> row, const Cell& asked) {
    return std::any_of(row.begin(), row.end(), [&asked](const Cell& cell) {
        return cell.program == asked.program && (cell.handler == every || cell.handler == asked.handler) &&
               (cell.command == asked.command || (cell.command == looking && isReading(asked)));
    });
}

bool mayBe(const UserRights& rights, std::uint32_t program) {
    return std::find(rights.programs.begin(), rights.programs.end(), program) != rights.programs.end();
}

bool mayWrite(const UserRights& rights, const Cell& asked) {
    return std::any_of(rights.writes.begin(), rights.writes.end(), [&asked](const tk::Path& granted) {
        return granted.front() == asked.program && (granted.size() == 1 || granted[1] == asked.handler);
    });
}

bool mayAsk(const UserRights& rights, const Cell& asked) {
    const bool isOther =
        !mayBe(rights, contract::program::gateway) && !mayBe(rights, contract::program::resolver);
    if (isOther && isIn(ofOthers, asked)) return true;
    if (mayBe(rights, contract::program::gateway) && isIn(ofGateway, asked)) return true;
    return mayWrite(rights, asked);
}

tk::Status unless(bool allowed, const std::string& refusal) {
    return allowed ? tk::Status() : tk::Status::failure(refusal);
}

/// The part of a path that rights depend on.
std::string textOf(const tk::Path& path) {
    return std::to_string(path.front()) + (path.size() > 1 ? "," + std::to_string(path[1]) : "");
}

tk::Status checkAsking(const UserRights& rights, const tk::Path& path, std::uint32_t command) {
    const Cell asked = cellOf(path, command);
    // It takes back somebody else's change, which is more than writing records.
    if (asked.program == tk::program::history && command == contract::undoLast)
        return unless(rights.undoes, "may not undo changes: it needs undo = true");
    if (mayAsk(rights, asked)) return {};
    const std::string place = textOf(path);
    return tk::Status::failure((isReading(asked) ? "may not look at {" : "may not change {") + place +
                               "}: it needs writes = [\"" + place + "\"]");
}

tk::Status checkBeing(const UserRights& rights, const std::string& what, std::uint32_t program) {
    const std::string number = std::to_string(program);
    return unless(mayBe(rights, program),
                  "may not " + what + number + ": it needs programs = [" + number + "]");
}

/// Decides about commands to the hub itself. The ones not named concern only their sender.
tk::Status checkCommand(const UserRights& rights, const tk::message& request) {
    switch (request.get_u32(tk::field::command)) {
        case tk::command::hubRegister:
            return checkBeing(rights, "register program ", request.get_u32(tk::hubfield::program));
        case tk::command::hubTrace:
            return unless(rights.traces, "may not trace: it needs trace = true");
        case tk::command::hubPrograms:  // is as much of the router as its interfaces
            return checkAsking(rights, contract::path::interfaces(), tk::command::get);
        case tk::command::hubReload:
            return tk::Status::failure("may not reload the configuration: it needs admin = true");
        case tk::command::hubSubscribe: {
            const tk::Path& path = request.get_u32_array(tk::hubfield::path);
            return path.empty() ? tk::Status() : checkAsking(rights, path, tk::command::get);
        }
        default:
            return {};
    }
}

bool isProgram(const tk::message& sent) {
    const tk::Path& from = sent.get_u32_array(tk::field::sender);
    return !from.empty() && from.front() < tk::program::firstClient;
}

tk::Status checkRequest(const UserRights& rights, const tk::message& request) {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    if (to.empty()) return {};  // goes nowhere
    if (to.front() == tk::program::hub) return checkCommand(rights, request);
    const std::uint32_t command = request.get_u32(tk::field::command);
    // A client's records would go when it does, and before that push out those of others.
    if (to.front() == tk::program::history && command == tk::command::addObject && !isProgram(request) &&
        mayBe(rights, contract::program::gateway) && !mayWrite(rights, cellOf(to, command)))
        return tk::Status::failure("may not record changes: it is no program");
    return checkAsking(rights, to, command);
}

/// Only programs send notifications and answers, and only in their own name.
tk::Status checkSpeaking(const UserRights& rights, const tk::message& sent) {
    if (!isProgram(sent)) return tk::Status::failure("may not tell anything: it is no program");
    return checkBeing(rights, "speak as program ", sent.get_u32_array(tk::field::sender).front());
}

}  // namespace

Access::Access(const std::vector<UserRights>& all) {
    for (const UserRights& each : all) {
        UserRights& rights = users[each.uid];
        rights.uid = each.uid;
        rights.programs.insert(rights.programs.end(), each.programs.begin(), each.programs.end());
        rights.writes.insert(rights.writes.end(), each.writes.begin(), each.writes.end());
        rights.traces |= each.traces;
        rights.undoes |= each.undoes;
        rights.isAdmin |= each.isAdmin;
    }
}

const UserRights& Access::rightsOf(uid_t user) const {
    static const UserRights none;
    const auto known = users.find(user);
    return known == users.end() ? none : known->second;
}

tk::Status Access::check(uid_t user, const tk::message& sent) const {
    const UserRights& rights = rightsOf(user);
    if (user == root || rights.isAdmin) return {};
    return tk::kindOf(sent) == tk::Kind::request ? checkRequest(rights, sent) : checkSpeaking(rights, sent);
}

bool Access::runsPrograms(uid_t user) const {
    const UserRights& rights = rightsOf(user);
    return user == root || rights.isAdmin || !rights.programs.empty();
}

}  // namespace hub
