#include "router/config.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

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
constexpr std::int64_t highestNumber = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t highestRate = 1000000;
constexpr uid_t root = 0;
constexpr gid_t rootGroup = 0;

/// Walks a parsed file section by section, and stops at the first error.
class Reader {
public:
    explicit Reader(const std::string& name) : values(name) {}

    tk::Result<Config> configIn(const toml::table& root) {
        Config config;
        return read(root, config) ? tk::Result<Config>(std::move(config)) : values.status();
    }

private:
    [[nodiscard]] bool read(const toml::table& root, Config& out) {
        for (const auto& [key, value] : root) {
            if (key == "program") {
                if (!readEach(key, value, &Reader::readProgram, out)) return false;
            } else if (key == "user") {
                if (!readEach(key, value, &Reader::readUser, out)) return false;
            } else if (key == "interface") {
                if (!readEach(key, value, &Reader::readInterface, out)) return false;
            } else if (const auto section = sectionNamed(key)) {
                const toml::table* table = value.as_table();
                if (!table)
                    return values.fail(key, value, "must be written as [" + std::string(key.str()) + "]");
                if (!readSection(*table, section, out)) return false;
            } else {
                return values.fail(key, value, "unknown key");
            }
        }
        return true;
    }

    using Entry = bool (Reader::*)(const toml::table& table, Config& out);
    using Section = bool (Reader::*)(std::string_view key, const toml::node& value, Config& out);

    static Section sectionNamed(std::string_view key) {
        if (key == "router") return &Reader::readRouter;
        if (key == "lan") return &Reader::readLan;
        if (key == "nat") return &Reader::readNat;
        return key == "guard" ? &Reader::readGuard : nullptr;
    }

    [[nodiscard]] bool readEach(std::string_view key, const toml::node& value, Entry read, Config& out) {
        const std::string wanted = "must be written as [[" + std::string(key) + "]]";
        const toml::array* list = value.as_array();
        if (!list) return values.fail(key, value, wanted);
        for (const toml::node& entry : *list) {
            const toml::table* table = entry.as_table();
            if (!table) return values.fail(key, entry, wanted);
            if (!(this->*read)(*table, out)) return false;
        }
        return true;
    }

    [[nodiscard]] bool readSection(const toml::table& table, Section read, Config& out) {
        return std::all_of(table.begin(), table.end(), [&](const auto& entry) {
            return (this->*read)(entry.first.str(), entry.second, out);
        });
    }

    [[nodiscard]] bool readProgram(const toml::table& table, Config& config) {
        hub::ProgramConfig& out = config.programs.emplace_back();
        for (const auto& [key, value] : table) {
            if (key == "number") {
                if (!values.read(key, value, 1, tk::program::firstClient - 1, out.number)) return false;
            } else if (key == "command") {
                if (!values.readCommand(key, value, out.command)) return false;
            } else if (key == "unit") {
                if (!values.readUnit(key, value, out.unit)) return false;
            } else if (key == "start") {
                if (!values.read(key, value, out.startsWithRouter)) return false;
            } else if (key == "user") {
                if (!values.read(key, value, out.user)) return false;
            } else {
                return values.fail(key, value, "unknown key");
            }
        }
        if (!checkProgram(table, out)) return false;
        // The user as whom the router starts the program may register it.
        if (out.user) config.users.push_back({out.user->uid, {out.number}});
        return true;
    }

    /// Checks how the keys of a program go together.
    [[nodiscard]] bool checkProgram(const toml::table& table, const hub::ProgramConfig& program) {
        if (program.number == 0) return values.fail("number", table, "is missing");
        if (program.unit.empty() && program.command.empty())
            return values.fail("command", table, "is missing");
        if (!program.unit.empty() && !program.command.empty())
            return values.fail("unit", *table.get("unit"), "stands beside command");
        if (!program.unit.empty() && program.user)
            return values.fail("user", *table.get("user"), "stands beside unit, which names its user itself");
        return numbers.insert(program.number).second || values.fail("number", table, "stands twice");
    }

    [[nodiscard]] bool readUser(const toml::table& table, Config& config) {
        std::optional<tk::Account> account;
        hub::UserRights out;
        for (const auto& [key, value] : table) {
            if (key == "name") {
                if (!values.read(key, value, account)) return false;
            } else if (key == "programs") {
                if (!values.readPrograms(key, value, out.programs)) return false;
            } else if (key == "writes") {
                if (!values.read(key, value, out.writes)) return false;
            } else if (key == "trace") {
                if (!values.read(key, value, out.traces)) return false;
            } else if (key == "undo") {
                if (!values.read(key, value, out.undoes)) return false;
            } else if (key == "admin") {
                if (!values.read(key, value, out.isAdmin)) return false;
            } else {
                return values.fail(key, value, "unknown key");
            }
        }
        if (!account) return values.fail("name", table, "is missing");
        out.uid = account->uid;
        config.users.push_back(out);
        return true;
    }

    [[nodiscard]] bool readRouter(std::string_view key, const toml::node& value, Config& out) {
        return key == "user" ? values.read(key, value, out.user) : values.fail(key, value, "unknown key");
    }

    [[nodiscard]] bool readLan(std::string_view key, const toml::node& value, Config& out) {
        if (key == "interfaces") return values.readInterfaces(key, value, out.lan.interfaces.emplace());
        if (key == "networks") return values.read(key, value, out.lan.networks);
        return values.fail(key, value, "unknown key");
    }

    [[nodiscard]] bool readInterface(const toml::table& table, Config& config) {
        links::InterfaceConfig& out = config.interfaces.emplace_back();
        for (const auto& [key, value] : table) {
            if (key == "name") {
                if (!values.readInterface(key, value, out.name)) return false;
            } else if (key == "terminate") {
                if (!values.read(key, value, out.terminate)) return false;
            } else if (key == "down") {
                if (!values.readCommand(key, value, out.down)) return false;
            } else if (key == "up") {
                if (!values.readCommand(key, value, out.up)) return false;
            } else {
                return values.fail(key, value, "unknown key");
            }
        }
        if (out.name.empty()) return values.fail("name", table, "is missing");
        return interfaceNames.insert(out.name).second || values.fail("name", table, "stands twice");
    }

    [[nodiscard]] bool readNat(std::string_view key, const toml::node& value, Config& out) {
        nat::Config& nat = out.nat;
        if (key == "check-targets") return values.read(key, value, nat.checksTargets);
        if (key == "internal-prefixes") return values.fail(key, value, "is now \"networks\" in [lan]");
        if (key == "external-ports") return values.read(key, value, nat.externalPorts);
        if (key == "internal-ports") return values.read(key, value, nat.internalPorts);
        if (key == "router-ports") return values.read(key, value, nat.routerPorts);
        if (key == "limit-per-client") return values.read(key, value, 0, highestNumber, nat.limitPerTarget);
        if (key == "limit") return values.read(key, value, 0, highestNumber, nat.limit);
        return values.fail(key, value, "unknown key");
    }

    [[nodiscard]] bool readGuard(std::string_view key, const toml::node& value, Config& out) {
        firewall::GuardConfig& guard = out.guard;
        if (key == "limit-connections") return values.read(key, value, guard.limitsConnections);
        if (key == "searches-per-second")
            return values.read(key, value, 0, highestRate, guard.searchesPerSecond);
        if (key == "requests-per-second")
            return values.read(key, value, 0, highestRate, guard.requestsPerSecond);
        if (key == "connections") return values.read(key, value, 0, highestRate, guard.connections);
        return values.fail(key, value, "unknown key");
    }

    ConfigValues values;
    std::set<std::uint32_t> numbers;
    std::set<std::string> interfaceNames;
};

/// Refuses a file that could have been written by anybody other than root and the user who runs the router.
tk::Status checkWriters(const tk::Fd& file) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0)
        return tk::Status::failure("it cannot be told who may write this file");
    if ((status.st_mode & S_IWOTH) != 0) return tk::Status::failure("everybody may write this file");
    if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != rootGroup)
        return tk::Status::failure("group " + std::to_string(status.st_gid) + " may write this file");
    if (status.st_uid != root && status.st_uid != ::geteuid())
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

void runAsRouter(Config& config) {
    for (hub::ProgramConfig& program : config.programs) {
        if (program.user || !program.unit.empty()) continue;
        program.user = config.user;
        config.users.push_back({config.user->uid, {program.number}});
    }
}

void nameUsualUser(Config& config, std::uint32_t program, const std::string& name) {
    const bool isNamed = std::any_of(config.users.begin(), config.users.end(), [program](const auto& rights) {
        return std::find(rights.programs.begin(), rights.programs.end(), program) != rights.programs.end();
    });
    const std::optional<tk::Account> user = tk::findAccount(name);
    if (isNamed || !user) return;
    config.users.push_back({user->uid, {program}});
}

tk::Result<Config> readConfig(const std::string& path, bool mayBeAbsent) {
    const tk::Fd file = tk::openToRead(path);
    if (!file.isOpen() && errno == ENOENT && mayBeAbsent) return Config();
    if (!file.isOpen()) return tk::Status::ofErrno(path, errno);
    if (const tk::Status trust = checkWriters(file); !trust.isOk())
        return tk::Status::failure(path + ": " + trust.reason() + ", so it is not followed");
    const tk::Result<std::string> text = tk::readFile(file, sizeLimit);
    return text.isOk() ? parseConfig(*text, path) : text.status().prefixed(path + ": ");
}

}  // namespace router
