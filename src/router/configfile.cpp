#include "router/configfile.h"

#include <errno.h>
#include <unistd.h>

#include <utility>

#include "contract/programs.h"

namespace router {

namespace {

std::string nameOf(const std::optional<tk::Account>& account) {
    return account ? account->name : std::string();
}

}  // namespace

ConfigFile::ConfigFile(std::string path, bool mayBeAbsent)
    : path(std::move(path)), mayBeAbsent(mayBeAbsent), owner(::geteuid()) {}

tk::Result<Config> ConfigFile::read() {
    tk::Result<Config> config = readFile();
    if (!config.isOk()) return config;
    user = config->user;
    becomesUser = user && owner == 0;
    if (tk::Status completed = complete(*config); !completed.isOk()) return completed;
    return config;
}

tk::Result<Config> ConfigFile::readAgain() {
    tk::Result<Config> config = readFile();
    if (config.status().code() == EACCES && becomesUser)
        return tk::Status::failure(config.reason() + ": routerd runs as user " + nameOf(user) +
                                   ", who must be able to read it");
    if (!config.isOk()) return config;
    if (nameOf(config->user) != nameOf(user))
        return tk::Status::failure(path + ": user in [router] has changed: that needs a restart of routerd");
    config->user = user;  // with the groups that it had
    if (tk::Status completed = complete(*config); !completed.isOk()) return completed;
    return config;
}

/// Reads the file as it stands. One that was there and is gone is not absent: an editor may be about to put
/// another in its place.
tk::Result<Config> ConfigFile::readFile() {
    tk::Result<Config> config = readConfig(path, owner);
    const bool isAbsent = config.status().code() == ENOENT;
    if (isAbsent && wasThere) return tk::Status::failure(path + ": it is gone");
    if (isAbsent && mayBeAbsent) return Config();
    wasThere = !isAbsent;
    return config;
}

/// Adds what the file leaves open.
tk::Status ConfigFile::complete(Config& config) const {
    if (becomesUser) runAsRouter(config);
    if (owner != 0)
        if (tk::Status fits = runAsStarted(config, owner); !fits.isOk()) return fits.prefixed(path + ": ");
    return nameUsualUsers(config,
                          {{contract::program::gateway, "upnpd"}, {contract::program::resolver, "resolverd"}})
        .prefixed(path + ": ");
}

}  // namespace router
