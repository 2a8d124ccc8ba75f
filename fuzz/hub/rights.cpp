#include "fuzz/hub/rights.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>

#include "tk/bus.h"
#include "tk/names.h"

namespace fuzz {

namespace {

/// A program's handler and a command to it.
struct Asked {
    std::uint32_t program;
    std::uint32_t handler;
    std::uint32_t command;
    auto operator<=>(const Asked&) const = default;
};

/// What one user has been granted, all its rows together.
struct Granted {
    std::set<std::uint32_t> programs;
    std::vector<tk::Path> writes;
    bool traces = false;
    bool undoes = false;
    bool isAdmin = false;
};

Granted grantedTo(const std::vector<hub::UserRights>& table, uid_t user) {
    Granted all;
    for (const hub::UserRights& row : table) {
        if (row.uid != user) continue;
        all.programs.insert(row.programs.begin(), row.programs.end());
        all.writes.insert(all.writes.end(), row.writes.begin(), row.writes.end());
        all.traces = all.traces || row.traces;
        all.undoes = all.undoes || row.undoes;
        all.isAdmin = all.isAdmin || row.isAdmin;
    }
    return all;
}

bool looks(const Asked& asked) {
    static const std::set<std::uint32_t> anywhere = {0xFE0001, 0xFE0002, 0xFE0004, 0xFE000D, 0xFE000F};
    static const std::set<Asked> there = {{20, 0, 1}, {20, 0, 2}, {20, 5, 2}, {80, 1, 2}, {14, 0, 3}};
    return anywhere.contains(asked.command) || there.contains(asked);
}

bool mayAsk(const Granted& user, const Asked& asked) {
    if (asked.program == 24 && asked.command == 2) return user.undoes;
    for (const tk::Path& place : user.writes)
        if (place[0] == asked.program && (place.size() < 2 || place[1] == asked.handler)) return true;
    const bool isGateway = user.programs.contains(80);
    if (!isGateway && !user.programs.contains(14))
        return looks(asked) && std::set<std::uint32_t>{20, 24, 65, 80}.contains(asked.program);
    static const std::set<Asked> changes = {
        {20, 5, 0xFE0003}, {20, 5, 0xFE0005}, {20, 5, 0xFE0006}, {20, 0, 0xFE0003}, {24, 0, 0xFE0005}};
    const bool sees = looks(asked) && std::set<std::uint32_t>{20, 65, 14}.contains(asked.program);
    return isGateway && (sees || changes.contains(asked));
}

Asked askedOf(const tk::Path& path, std::uint32_t command) {
    return {path[0], path.size() < 2 ? 0 : path[1], command};
}

bool mayCommand(const Granted& user, const tk::message& sent) {
    const tk::Path& path = sent.get_u32_array(1);
    switch (sent.get_u32(tk::field::command)) {
        case 1:
            return user.programs.contains(sent.get_u32(1));
        case 2:
            return path.empty() || mayAsk(user, askedOf(path, tk::command::get));
        case 4:
            return user.traces;
        case 7:
            return mayAsk(user, {20, 0, tk::command::get});
        case 8:
            return false;
        default:
            return true;
    }
}

}  // namespace

bool may(const std::vector<hub::UserRights>& table, uid_t uid, const tk::message& sent) {
    const Granted user = grantedTo(table, uid);
    if (uid == 0 || user.isAdmin) return true;
    const std::uint32_t name = sent.get_u32_array(tk::field::sender).at(0);
    if (tk::kindOf(sent) != tk::Kind::request) return name < 1000 && user.programs.contains(name);
    const tk::Path& to = sent.get_u32_array(tk::field::destination);
    if (to[0] == 0) return mayCommand(user, sent);
    const Asked asked = askedOf(to, sent.get_u32(tk::field::command));
    // Only a program adds "its own records": the right to write there is another one.
    Granted without = user;
    without.programs = {14};
    if (asked == Asked{24, 0, 0xFE0005} && name >= 1000 && user.programs.contains(80))
        return mayAsk(without, asked);
    return mayAsk(user, asked);
}

}  // namespace fuzz
