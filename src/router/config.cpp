#include "router/config.h"

#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

#include "router/configvalues.h"
#include "tk/file.h"
#include "tk/names.h"

namespace router {

namespace {

constexpr std::size_t sizeLimit = std::size_t{1024} * 1024;
constexpr std::uint32_t highestNumber = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t highestRate = 1000000;
constexpr uid_t root = 0;
constexpr gid_t rootGroup = 0;

/// Keeps what was read in its place.
/// Errors: why it was not.
template <typename Place, typename Value>
tk::Status keep(Place& place, tk::Result<Value> read) {
    if (!read.isOk()) return read.status();
    place = read.take();
    return {};
}

/// Hands each key of a table on with its value.
/// Errors: the first that there is; the keys after it are not read.
template <typename Read>
tk::Status readKeys(const toml::table& table, const Read& read) {
    for (const auto& [key, value] : table)
        if (tk::Status result = read(key.str(), value); !result.isOk()) return result;
    return {};
}

/// A key of a program that must not stand beside another.
struct Exclusion {
    std::string_view key;
    std::string_view other;
    std::string_view reason;
};

constexpr Exclusion exclusions[] = {
    {"unit", "command", "stands beside command"},
    {"trigger", "command", "stands beside command"},
    {"trigger", "unit", "stands beside unit"},
    {"user", "unit", "stands beside unit, which names its user itself"},
    {"user", "trigger", "stands beside trigger, whose service names its user itself"},
};

/// Walks a parsed file section by section, and stops at the first error.
class Reader {
public:
    explicit Reader(const std::string& name) : values(name) {}

    tk::Result<Config> configIn(const toml::table& root) {
        Config config;
        tk::Status result =
            readKeys(root, [&](auto key, const auto& value) { return readPart(key, value, config); });
        return result.isOk() ? tk::Result<Config>(std::move(config)) : result;
    }

private:
    using Entry = tk::Status (Reader::*)(const toml::table& table, Config& out);
    using Section = tk::Status (Reader::*)(std::string_view key, const toml::node& value, Config& out);

    tk::Status readPart(std::string_view key, const toml::node& value, Config& out) {
        if (key == "program") return readEach(key, value, &Reader::readProgram, out);
        if (key == "user") return readEach(key, value, &Reader::readUser, out);
        if (key == "interface") return readEach(key, value, &Reader::readInterface, out);
        const Section section = sectionNamed(key);
        if (!section) return unknown(key, value);
        const toml::table* table = value.as_table();
        if (!table) return values.fault(key, value, "must be written as [" + std::string(key) + "]");
        return readKeys(*table,
                        [&](auto name, const auto& entry) { return (this->*section)(name, entry, out); });
    }

    static Section sectionNamed(std::string_view key) {
        if (key == "router") return &Reader::readRouter;
        if (key == "lan") return &Reader::readLan;
        if (key == "nat") return &Reader::readNat;
        return key == "guard" ? &Reader::readGuard : nullptr;
    }

    tk::Status readEach(std::string_view key, const toml::node& value, Entry read, Config& out) {
        const std::string wanted = "must be written as [[" + std::string(key) + "]]";
        const toml::array* list = value.as_array();
        if (!list) return values.fault(key, value, wanted);
        for (const toml::node& entry : *list) {
            const toml::table* table = entry.as_table();
            if (!table) return values.fault(key, entry, wanted);
            if (tk::Status result = (this->*read)(*table, out); !result.isOk()) return result;
        }
        return {};
    }

    tk::Status readProgram(const toml::table& table, Config& config) {
        hub::ProgramConfig& out = config.programs.emplace_back();
        tk::Status result =
            readKeys(table, [&](auto key, const auto& value) { return readProgramKey(key, value, out); });
        if (result.isOk()) result = checkProgram(table, out);
        // The user as whom the router starts the program may register it.
        if (result.isOk() && out.user) config.runners.push_back({out.user->uid, {out.number}});
        return result;
    }

    tk::Status readProgramKey(std::string_view key, const toml::node& value, hub::ProgramConfig& out) {
        if (key == "number") return keep(out.number, values.program(key, value));
        if (key == "command") return keep(out.command, values.command(key, value));
        if (key == "unit") return keep(out.unit, values.unit(key, value));
        if (key == "trigger") return keep(out.trigger, values.file(key, value));
        if (key == "start") return keep(out.startsWithRouter, values.flag(key, value));
        if (key == "user") return keep(out.user, values.account(key, value));
        return unknown(key, value);
    }

    /// Checks how the keys of a program go together.
    tk::Status checkProgram(const toml::table& table, const hub::ProgramConfig& program) {
        if (program.number == 0) return values.fault("number", table, "is missing");
        if (!program.isManaged() && program.command.empty())
            return values.fault("command", table, "is missing");
        for (const Exclusion& each : exclusions)
            if (table.contains(each.key) && table.contains(each.other))
                return values.fault(each.key, *table.get(each.key), each.reason);
        return once(numbers.insert(program.number).second, "number", table);
    }

    tk::Status readUser(const toml::table& table, Config& config) {
        std::optional<tk::Account> account;
        hub::UserRights out;
        tk::Status result = readKeys(table, [&](auto key, const auto& value) {
            return key == "name" ? keep(account, values.account(key, value)) : readRight(key, value, out);
        });
        if (!result.isOk()) return result;
        if (!account) return values.fault("name", table, "is missing");
        out.uid = account->uid;
        config.users.push_back(out);
        return {};
    }

    tk::Status readRight(std::string_view key, const toml::node& value, hub::UserRights& out) {
        if (key == "programs") return keep(out.programs, values.programs(key, value));
        if (key == "writes") return keep(out.writes, values.paths(key, value));
        if (key == "trace") return keep(out.traces, values.flag(key, value));
        if (key == "undo") return keep(out.undoes, values.flag(key, value));
        if (key == "admin") return keep(out.isAdmin, values.flag(key, value));
        return unknown(key, value);
    }

    tk::Status readRouter(std::string_view key, const toml::node& value, Config& out) {
        return key == "user" ? keep(out.user, values.account(key, value)) : unknown(key, value);
    }

    tk::Status readLan(std::string_view key, const toml::node& value, Config& out) {
        if (key == "interfaces") return keep(out.lan.interfaces, values.interfaces(key, value));
        if (key == "networks") return keep(out.lan.networks, values.networks(key, value));
        return unknown(key, value);
    }

    tk::Status readInterface(const toml::table& table, Config& config) {
        links::InterfaceConfig& out = config.interfaces.emplace_back();
        tk::Status result =
            readKeys(table, [&](auto key, const auto& value) { return readInterfaceKey(key, value, out); });
        if (!result.isOk()) return result;
        if (out.name.empty()) return values.fault("name", table, "is missing");
        return once(interfaceNames.insert(out.name).second, "name", table);
    }

    tk::Status readInterfaceKey(std::string_view key, const toml::node& value, links::InterfaceConfig& out) {
        if (key == "name") return keep(out.name, values.interface(key, value));
        if (key == "terminate") return keep(out.terminate, values.flag(key, value));
        if (key == "down") return keep(out.down, values.command(key, value));
        if (key == "up") return keep(out.up, values.command(key, value));
        return unknown(key, value);
    }

    tk::Status readNat(std::string_view key, const toml::node& value, Config& out) {
        nat::Config& nat = out.nat;
        if (key == "check-targets") return keep(nat.checksTargets, values.flag(key, value));
        if (key == "internal-prefixes") return values.fault(key, value, "is now \"networks\" in [lan]");
        if (key == "external-ports") return keep(nat.externalPorts, values.ports(key, value));
        if (key == "internal-ports") return keep(nat.internalPorts, values.ports(key, value));
        if (key == "router-ports") return keep(nat.routerPorts, values.ports(key, value));
        if (key == "limit-per-client")
            return keep(nat.limitPerTarget, values.number(key, value, 0, highestNumber));
        if (key == "limit") return keep(nat.limit, values.number(key, value, 0, highestNumber));
        return unknown(key, value);
    }

    tk::Status readGuard(std::string_view key, const toml::node& value, Config& out) {
        firewall::GuardConfig& guard = out.guard;
        if (key == "limit-connections") return keep(guard.limitsConnections, values.flag(key, value));
        if (key == "searches-per-second")
            return keep(guard.searchesPerSecond, values.number(key, value, 0, highestRate));
        if (key == "requests-per-second")
            return keep(guard.requestsPerSecond, values.number(key, value, 0, highestRate));
        if (key == "connections") return keep(guard.connections, values.number(key, value, 0, highestRate));
        return unknown(key, value);
    }

    tk::Status unknown(std::string_view key, const toml::node& value) const {
        return values.fault(key, value, "unknown key");
    }

    /// Checks that no other entry of a list has the same name.
    tk::Status once(bool isFirst, std::string_view key, const toml::table& entry) const {
        return isFirst ? tk::Status() : values.fault(key, entry, "stands twice");
    }

    const ConfigValues values;
    std::set<std::uint32_t> numbers;
    std::set<std::string> interfaceNames;
};

/// Refuses a file that could have been written by anybody other than root and its owner.
tk::Status checkWriters(const tk::Fd& file, uid_t owner) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0)
        return tk::Status::failure("it cannot be told who may write this file");
    if ((status.st_mode & S_IWOTH) != 0) return tk::Status::failure("everybody may write this file");
    if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != rootGroup)
        return tk::Status::failure("group " + std::to_string(status.st_gid) + " may write this file");
    if (status.st_uid != root && status.st_uid != owner)
        return tk::Status::failure("this file belongs to user " + std::to_string(status.st_uid));
    return {};
}

}  // namespace

tk::Result<Config> parseConfig(const std::string& text, const std::string& name) {
    const toml::parse_result parsed = toml::parse(text, name);
    if (parsed) return Reader(name).configIn(parsed.table());
    return tk::Status::failure(name + ":" + std::to_string(parsed.error().source().begin.line) + ": " +
                               std::string(parsed.error().description()));
}

namespace {

bool isNamedIn(const std::vector<hub::UserRights>& users, std::uint32_t program) {
    return std::any_of(users.begin(), users.end(), [program](const auto& rights) {
        return std::find(rights.programs.begin(), rights.programs.end(), program) != rights.programs.end();
    });
}

}  // namespace

void runAsRouter(Config& config) {
    for (hub::ProgramConfig& program : config.programs) {
        if (program.user || program.isManaged()) continue;
        program.user = config.user;
        config.runners.push_back({config.user->uid, {program.number}});
    }
}

tk::Status runAsStarted(Config& config, uid_t self) {
    if (config.user && config.user->uid != self)
        return tk::Status::failure("[router] user: only root can start it as " + config.user->name);
    for (hub::ProgramConfig& program : config.programs) {
        if (program.user && program.user->uid != self)
            return tk::Status::failure("program " + std::to_string(program.number) +
                                       ": user: only root can start it as " + program.user->name +
                                       "; give it a trigger in place of command and user");
        if (!program.user && !program.isManaged()) config.runners.push_back({self, {program.number}});
        program.user.reset();
    }
    return {};
}

std::vector<hub::ProgramConfig> commandsIn(const Config& config) {
    std::vector<hub::ProgramConfig> all = config.programs;
    for (hub::ProgramConfig& command : links::stateCommands(config.interfaces))
        all.push_back(std::move(command));
    return all;
}

std::vector<std::string> changedSections(const Config& before, const Config& after) {
    const std::pair<const char*, bool> sections[] = {
        {"program", before.programs != after.programs || before.runners != after.runners},
        {"user", before.users != after.users},
        {"lan", before.lan != after.lan},
        {"interface", before.interfaces != after.interfaces},
        {"nat", before.nat != after.nat},
        {"guard", before.guard != after.guard},
    };
    std::vector<std::string> changed;
    for (const auto& [name, differs] : sections)
        if (differs) changed.emplace_back(name);
    return changed;
}

tk::Status nameUsualUsers(Config& config, const std::vector<UsualUser>& usual) {
    std::vector<std::string> names;
    names.reserve(usual.size());
    for (const UsualUser& each : usual) names.push_back(each.name);
    const tk::Result<std::vector<std::optional<uid_t>>> asked = tk::findUsers(names);
    if (!asked.isOk()) return asked.status();
    const std::vector<std::optional<uid_t>>& found = *asked;
    for (std::size_t i = 0; i < usual.size(); ++i)
        if (const std::uint32_t program = usual[i].program;
            found[i] && !isNamedIn(config.users, program) && !isNamedIn(config.runners, program))
            config.runners.push_back({*found[i], {program}});
    return {};
}

tk::Result<Config> readConfig(const std::string& path, uid_t owner) {
    const tk::Fd file = tk::openToRead(path);
    if (!file.isOpen()) return tk::Status::ofErrno(path, errno);
    if (const tk::Status trust = checkWriters(file, owner); !trust.isOk())
        return tk::Status::failure(path + ": " + trust.reason() + ", so it is not followed");
    const tk::Result<std::string> text = tk::readFile(file, sizeLimit);
    if (text.status().code() == EINVAL) return tk::Status::failure(path + ": not a regular file");
    return text.isOk() ? parseConfig(*text, path) : text.status().prefixed(path + ": ");
}

}  // namespace router
